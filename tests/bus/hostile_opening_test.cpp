// Odd openings of direct lines: the side that is asked refuses, the side that asked does without.
#include <fcntl.h>
#include <gtest/gtest.h>
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
using wire::Writer;

class HostileOpening : public testing::Test {
 protected:
  void SetUp() override {
    if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  }
};

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
    EXPECT_EQ(answer->type, wire::Type::Error);
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

TEST_F(HostileOpening, OfServiceLeavesClientOnBus) {
  const std::pair<const char*, FakeService::Opening> openings[] = {
      {"error", [](Peer& bus, const Message& open,
                   Peer&) { bus.send(Message::replyTo(open, wire::Type::Error)); }},
      {"refused text",
       [](Peer& bus, const Message& open, Peer& handover) {
         hand(handover, halfOfAPair().get());
         bus.send(Message::replyTo(open).with("s", Writer().text("\xEF\xBF\xBE").bytes()));
       }},
      {"no process",
       [](Peer& bus, const Message& open, Peer& handover) {
         hand(handover, halfOfAPair().get());
         bus.send(Message::replyTo(open));
       }},
      {"another process",
       [](Peer& bus, const Message& open, Peer& handover) {
         hand(handover, halfOfAPair().get());
         bus.send(processReply(open, 1));
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

TEST(DirectLine, LeavesNothingBehind) {
  if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
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
