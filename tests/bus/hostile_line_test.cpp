// Direct lines whose other end breaks the protocol, stops in the middle, ends or opens oddly.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

#include "platform/zqbus/sdbus/descriptor_passing.h"
#include "tests/bus/bus_fixture.h"
#include "tests/bus/hostile_memory.h"
#include "tests/bus/peers.h"

namespace zq {
namespace {

using namespace std::string_literals;
using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

const Message kEvent = Message::signal(kPerixPath, kPerixName, "perixevent");

class HostileLine : public testing::Test {
 protected:
  void SetUp() override {
    if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  }
};

Message odd(Message message) {
  return message.with("i", Writer().number(4, 1).bytes());
}

struct OddFrame {
  const char* name;
  Fate fate;
  std::function<std::string(Message)> make;
};

/// The frame with bytes of the fixed part replaced.
auto withFixed(std::size_t at, std::string bytes) {
  return [=](const Message& good) { return wire::bytesOf(good).replace(at, bytes.size(), bytes); };
}

auto withField(uint8_t code, std::string_view signature, const Writer::Content& value) {
  const std::string field = Writer().number(1, code).variant(signature, value).bytes();
  return [field](Message good) {
    good.otherFields = field;
    return wire::bytesOf(good);
  };
}

/// The frame of a message with another member.
template <typename Value>
auto with(Value Message::*member, Value value) {
  return [=](Message good) {
    good.*member = value;
    return wire::bytesOf(good);
  };
}

constexpr std::size_t kVersionAt = 3;
constexpr std::size_t kBodyLengthAt = 4;
constexpr std::size_t kSerialAt = 8;
constexpr std::size_t kFieldsLengthAt = 12;

const OddFrame kFrames[] = {
    {"version 0", Fate::Dropped, withFixed(kVersionAt, "\0"s)},
    {"version 3", Fate::Dropped, withFixed(kVersionAt, "\3")},
    {"unknown byte order", Fate::Cut, withFixed(0, "x")},
    {"type 0", Fate::Dropped, withFixed(1, "\0"s)},
    {"unknown type", Fate::Dropped, withFixed(1, "\7")},
    {"serial 0", Fate::Dropped, withFixed(kSerialAt, "\0\0\0\0"s)},
    {"body of 4 GiB", Fate::Cut, withFixed(kBodyLengthAt, "\xFF\xFF\xFF\xFF")},
    {"body of 128 MiB", Fate::Cut, withFixed(kBodyLengthAt, "\0\0\0\x8"s)},
    {"header fields of 4 GiB", Fate::Cut, withFixed(kFieldsLengthAt, "\xFF\xFF\xFF\xFF")},
    {"no protocol", Fate::Cut, [](const Message&) { return "GET / HTTP/1.1\r\n\r\n"s; }},
    {"handshake once more", Fate::Cut,
     [](const Message&) { return "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"s; }},
    {"event with the serial of a reply", Fate::Dropped,
     [](Message good) {
       const uint32_t serial = good.replySerial;
       good = odd(kEvent);
       good.replySerial = serial;
       return wire::bytesOf(good);
     }},
    {"unknown header field", Fate::Read,
     withField(99, "s", [](Writer& to) { to.text("unheard of"); })},
    {"header field 0", Fate::Dropped, withField(0, "y", [](Writer& to) { to.number(1, 0); })},
    {"path of another type", Fate::Dropped,
     withField(1, "s", [](Writer& to) { to.text("/org/zqbus/perix"); })},
    {"second serial of a reply", Fate::Dropped,
     withField(5, "u", [](Writer& to) { to.number(4, 1); })},
    {"second signature", Fate::Dropped, withField(8, "g", [](Writer& to) { to.signature("s"); })},
    {"signature without an end", Fate::Dropped, with(&Message::signature, "a(i"s)},
    {"neither member nor serial of a reply", Fate::Dropped,
     [](Message good) {
       good.member.clear();
       good.replySerial = 0;
       return wire::bytesOf(good);
     }},
};

/// Calls and other messages that a service answers or drops, and goes on.
const OddFrame kCalls[] = {
    {"call to the bus", Fate::Unreadable,
     [](Message good) {
       good.path = "/org/freedesktop/DBus";
       good.interface = good.destination = "org.freedesktop.DBus";
       return wire::bytesOf(good);
     }},
    {"call to another object", Fate::Unreadable, with(&Message::path, "/x"s)},
    {"sender that the client wrote", Fate::Read, with(&Message::sender, ":1.1"s)},
    {"reply to nothing", Fate::Dropped,
     [](Message good) { return wire::bytesOf(Message::replyTo(good)); }},
    {"event", Fate::Dropped, [](const Message&) { return wire::bytesOf(odd(kEvent)); }},
};

TEST_F(HostileLine, FramesOfServiceAreReadOrEndIt) {
  std::optional<FakeService> service;
  for (const OddFrame& frame : kFrames) {
    SCOPED_TRACE(frame.name);
    if (!service) service.emplace();
    auto reply = callSoon(service->client());
    const auto call = service->nextCall();
    service->way().send(frame.make(odd(Message::replyTo(*call))));
    service->answerWell(*call);
    const Fate fate = fateOf(reply.get());
    EXPECT_EQ(fate, frame.fate);
    if (fate != Fate::Cut) continue;
    EXPECT_TRUE(service->way().hasEnded());
    service.reset();
  }
}

TEST_F(HostileLine, FramesOfClientAreReadOrEndIt) {
  RecordingService service;
  std::optional<FakeClient> client;
  std::vector<OddFrame> frames(std::begin(kFrames), std::end(kFrames));
  frames.insert(frames.end(), std::begin(kCalls), std::end(kCalls));
  for (const OddFrame& frame : frames) {
    SCOPED_TRACE(frame.name);
    if (!client) client.emplace();
    Message call = odd(perixCall("odd"));
    const Fate fate = fateOfCall(client->way(), call.serial, frame.make(call));
    EXPECT_EQ(fate, frame.fate);
    if (fate == Fate::Cut) client.reset();
  }
}

// --- Ends ----------------------------------------------------------------------------------------

constexpr std::size_t kBeginnings[] = {0, 1, 15, 16, 33};

TEST_F(HostileLine, EndWithinMessageIsServiceDeath) {
  for (const std::size_t sent : kBeginnings) {
    SCOPED_TRACE(sent);
    FakeService service;
    Deaths deaths(service.client());
    auto reply = callSoon(service.client());
    const auto call = service.nextCall();
    const std::string message = wire::bytesOf(odd(Message::replyTo(*call)));
    service.way().send(std::string_view(message).substr(0, sent));
    // The client waits for the rest as long as its call may take.
    EXPECT_EQ(callSoon(service.client(), 50).get()->failure(), ZQBusFailure::TimedOut);
    service.way().shutdown(SHUT_WR);
    EXPECT_EQ(reply.get()->failure(), ZQBusFailure::PeerGone);
    EXPECT_TRUE(deaths.waitFor(1));
  }
}

TEST_F(HostileLine, EndHasItsOwnerPinged) {
  FakeService service;
  Deaths deaths(service.client());
  service.way().shutdown(SHUT_RDWR);
  EXPECT_TRUE(deaths.waitFor(1));
  auto asking =
      soon([] { return ZQBusSerivceManager::initSync(-1)->isServiceRegistered("perix"); });
  const auto ping =
      service.bus().receiveUntil([](const Message& message) { return message.type == Type::Call; });
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping->member, "Ping");
  service.bus().send(Message::replyTo(*ping));
  EXPECT_TRUE(asking.get());
}

TEST_F(HostileLine, StopWithinMessageBlocksNoOtherClient) {
  RecordingService service;
  const std::string message = wire::bytesOf(perixCall("half"));
  for (const std::size_t sent : kBeginnings) {
    SCOPED_TRACE(sent);
    FakeClient halting;
    halting.way().send(std::string_view(message).substr(0, sent));
    FakeClient other;
    EXPECT_TRUE(other.way().ask(perixCall("whole")));
    service.sendEvent(0, 1);
    halting.way().shutdown(SHUT_WR);
    EXPECT_TRUE(halting.way().hasEnded());
    EXPECT_TRUE(other.way().ask(perixCall("whole")));
  }
}

// --- Openings ------------------------------------------------------------------------------------

using HostileOpening = HostileLine;
using DirectLine = HostileLine;

// Lines that were refused end on threads of the service, a few descriptors each.
constexpr int kLinesThatEnd = 24;

/// Descriptors stay about as many as they were at the first round; each round takes several.
class DescriptorCount {
 public:
  void check() {
    if (first_ == 0) first_ = openDescriptors();
    EXPECT_LE(openDescriptors(), first_ + kLinesThatEnd);
  }

 private:
  int first_ = 0;
};

OwnedDescriptor file() {
  return OwnedDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
}

OwnedDescriptor halfOfAPair() {
  return socketPair().first;
}

/// Connected to itself, so that a message can be sent on it.
OwnedDescriptor datagramSocket() {
  OwnedDescriptor made(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un name{AF_UNIX, {}};
  socklen_t size = sizeof name;
  auto* const address = reinterpret_cast<sockaddr*>(&name);
  EXPECT_EQ(::bind(made.get(), address, sizeof name.sun_family), 0);
  EXPECT_EQ(::getsockname(made.get(), address, &size), 0);
  EXPECT_EQ(::connect(made.get(), address, size), 0);
  return made;
}

TEST(DescriptorPassing, ClosesSurplusDescriptors) {
  auto [ours, theirs] = socketPair();
  Peer sender{std::move(theirs)};
  const std::array<int, 5> copies{};
  const int before = openDescriptors();
  for (const std::size_t count : {1, 2, 3, 5}) {
    ASSERT_TRUE(sender.send("x", std::span(copies).first(count)));
    const OwnedDescriptor taken(receiveDescriptor(ours.get()));
    EXPECT_EQ(static_cast<bool>(taken), count == 1) << count;
    EXPECT_EQ(openDescriptors(), before + (count == 1 ? 1 : 0)) << count;
  }
}

// --- The service ---------------------------------------------------------------------------------

TEST_F(HostileOpening, OfClientIsRefused) {
  struct {
    const char* name;
    std::string signature;
    Writer body;
    OwnedDescriptor (*handover)();  // none when null
  } const openings[] = {
      {"nothing", "", Writer(), nullptr},
      {"a number", "i", Writer().number(4, 0), nullptr},
      {"refused text", "s", Writer().text("\xEF\xBF\xBE"), nullptr},
      {"index without a descriptor", "h", Writer().number(4, 0), nullptr},
      {"index behind the descriptors", "h", Writer().number(4, 9), &halfOfAPair},
      {"descriptor that no argument names", "i", Writer().number(4, 0), &halfOfAPair},
      {"descriptors in an array", "ah", Writer().array(4, [](Writer& list) { list.number(4, 0); }),
       &halfOfAPair},
      {"file", "h", Writer().number(4, 0), &file},
      {"datagram socket", "h", Writer().number(4, 0), &datagramSocket},
      {"socket whose other end is closed", "h", Writer().number(4, 0), &halfOfAPair},
  };
  RecordingService service;
  Peer client = Peer::onBus(testBus().address());
  DescriptorCount descriptors;
  for (const auto& [name, signature, body, handover] : openings) {
    SCOPED_TRACE(name);
    Message open = openCall().with(signature, body.bytes());
    const OwnedDescriptor sent = handover != nullptr ? handover() : OwnedDescriptor();
    open.announcedDescriptors = sent ? 1 : 0;
    const std::array all = {sent.get()};
    const auto answer = client.ask(open, std::span(all).first(sent ? 1 : 0));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, Type::Error);
    EXPECT_TRUE(FakeClient().way().ask(perixCall("good")));
    descriptors.check();
  }
}

TEST_F(HostileOpening, OddHandshakeEndsLine) {
  const std::string handshakes[] = {
      "",
      "\0"s,
      "AUTH EXTERNAL\r\n",
      "\0\r\n\r\n"s,
      "\0BEGIN\r\n"s,
      "\0AUTH\r\nBEGIN\r\n"s,
      "\0AUTH EXTERNAL 3939393939\r\nBEGIN\r\n"s,
      "\0AUTH EXTERNAL zz\r\nDATA\r\nBEGIN\r\n"s,
      "\0AUTH KERBEROS\r\nCANCEL\r\nERROR\r\nDATA\r\nBEGIN\r\n"s,
      "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\nNEGOTIATE_UNIX_FD\r\n"s,
      "\0"s + std::string(100'000, 'A'),
  };
  RecordingService service;
  Peer client = Peer::onBus(testBus().address());
  DescriptorCount descriptors;
  for (const std::string& handshake : handshakes) {
    SCOPED_TRACE(handshake.substr(0, 40));
    auto line = openLine(client);
    ASSERT_TRUE(line);
    line->send(handshake);
    line->shutdown(SHUT_WR);
    EXPECT_TRUE(line->hasEnded());
    line.reset();
    EXPECT_TRUE(FakeClient().way().ask(perixCall("good")));
    descriptors.check();
  }
}

// --- The client ----------------------------------------------------------------------------------

void giveProcess(Peer& bus, const Message& open) {
  bus.send(processReply(open, ::getpid()));
}

/// Hands out an end whose other end says that and then closes.
FakeService::Opening lineThatSays(const std::string& words) {
  return [words](Peer& bus, const Message& open, Peer& handover) {
    auto [ours, theirs] = socketPair();
    Peer(std::move(ours)).send(words);
    hand(handover, theirs.get());
    giveProcess(bus, open);
  };
}

FakeService::Opening handing(OwnedDescriptor (*make)()) {
  return [make](Peer& bus, const Message& open, Peer& handover) {
    hand(handover, make().get());
    giveProcess(bus, open);
  };
}

FakeService::Opening answering(Message (*answer)(const Message& open)) {
  return [answer](Peer& bus, const Message& open, Peer& handover) {
    hand(handover, halfOfAPair().get());
    bus.send(answer(open));
  };
}

TEST_F(HostileOpening, OfServiceLeavesClientOnBus) {
  const std::pair<const char*, FakeService::Opening> openings[] = {
      {"error", [](Peer& bus, const Message& open,
                   Peer&) { bus.send(Message::replyTo(open, Type::Error)); }},
      {"refused text", answering([](const Message& open) {
         return Message::replyTo(open).with("s", Writer().text("\xEF\xBF\xBE").bytes());
       })},
      {"no process", answering([](const Message& open) { return Message::replyTo(open); })},
      {"another process",
       [](Peer& bus, const Message& open, Peer& handover) {
         auto [ours, theirs] = socketPair();
         hand(handover, theirs.get());
         theirs.reset();
         bus.send(processReply(open, 1));
         EXPECT_FALSE(Peer(std::move(ours)).welcome()) << "a line that works";
       }},
      {"no end", [](Peer& bus, const Message& open, Peer&) { giveProcess(bus, open); }},
      {"byte without an end",
       [](Peer& bus, const Message& open, Peer& handover) {
         handover.send("x");
         giveProcess(bus, open);
       }},
      {"many ends",
       [](Peer& bus, const Message& open, Peer& handover) {
         const OwnedDescriptor end = halfOfAPair();
         handover.send("x", std::vector<int>(253, end.get()));
         giveProcess(bus, open);
       }},
      {"file", handing(&file)},
      {"datagram socket", handing(&datagramSocket)},
      {"line that is closed", handing(&halfOfAPair)},
      {"line that says nothing", lineThatSays("")},
      {"line that refuses", lineThatSays("REJECTED EXTERNAL\r\n")},
      {"line without a guid", lineThatSays("DATA\r\nOK\r\n")},
      {"line that ends within its guid", lineThatSays("DATA\r\nOK 0011")},
      {"line that says no end of lines", lineThatSays(std::string(100'000, 'A'))},
      {"line that sends messages at once",
       lineThatSays(wire::bytesOf(Message::signal("/a", "a.b", "c")))},
  };
  DescriptorCount descriptors;
  for (const auto& [name, opening] : openings) {
    SCOPED_TRACE(name);
    FakeService service(opening);
    auto reply = callSoon(service.client());
    service.answerWell(*service.nextCall());
    EXPECT_TRUE(isGood(reply.get()));
    descriptors.check();
  }
}

TEST_F(DirectLine, LeavesNothingBehind) {
  RecordingService owner;
  int descriptors = 0;
  std::size_t memory = 0;
  for (int round = 0; round < 200; ++round) {
    const auto interface = connect();
    ASSERT_EQ(call(*interface, "getVmList", {})->type(), 2);
    owner.sendEvent(0, 4);
    owner.takeCalls();
    if (round != 10) continue;
    descriptors = openDescriptors();
    memory = liveBytes();
  }
  // Lines that ended are cleared at the next opening.
  EXPECT_LE(openDescriptors(), descriptors + 8);
  EXPECT_LE(liveBytes(), memory + 40'000);
}

}  // namespace
}  // namespace zq
