// Direct lines whose other end breaks the protocol, stops in the middle or ends, and odd openings
// of lines.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/bus/peers.h"

namespace zq {
namespace {

using namespace std::string_literals;
using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

Message odd(Message message) {
  return message.with("i", Writer().number(4, 1).bytes());
}

/// Makes the bytes of an odd message from a good one.
struct OddFrame {
  const char* name;
  Fate fate;
  std::function<std::string(Message)> make;
};

std::string changed(const Message& message, std::size_t at, const std::string& bytes) {
  std::string all = wire::bytesOf(message);
  return all.replace(at, bytes.size(), bytes);
}

/// The frame with bytes of the fixed part replaced.
auto withFixed(std::size_t at, std::string bytes) {
  return [=](const Message& good) { return changed(good, at, bytes); };
}

/// The frame with a further header field.
auto withField(uint8_t code, std::string_view signature, const Writer::Content& value) {
  const std::string field = Writer().number(1, code).variant(signature, value).bytes();
  return [field](Message good) {
    good.otherFields = field;
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
       good = odd(Message::signal(kPerixPath, kPerixName, "perixevent"));
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
    {"signature without an end", Fate::Dropped,
     [](Message good) {
       good.signature = "a(i";
       return wire::bytesOf(good);
     }},
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
    {"call to another object", Fate::Unreadable,
     [](Message good) {
       good.path = "/x";
       return wire::bytesOf(good);
     }},
    {"sender that the client wrote", Fate::Read,
     [](Message good) {
       good.sender = ":1.1";
       return wire::bytesOf(good);
     }},
    {"reply to nothing", Fate::Dropped,
     [](Message good) { return wire::bytesOf(Message::replyTo(good)); }},
    {"event", Fate::Dropped,
     [](const Message&) {
       return wire::bytesOf(odd(Message::signal(kPerixPath, kPerixName, "perixevent")));
     }},
};

class HostileLine : public testing::Test {
 protected:
  void SetUp() override {
    if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  }
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

/// How much of a message comes before the end.
constexpr std::size_t kBeginnings[] = {0, 1, 15, 16, 33};

TEST_F(HostileLine, EndWithinMessageIsServiceDeath) {
  for (const std::size_t sent : kBeginnings) {
    SCOPED_TRACE(sent);
    FakeService service;
    Watched<int> deaths;
    service.client().setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
    auto reply = callSoon(service.client());
    const auto call = service.nextCall();
    const std::string message = wire::bytesOf(odd(Message::replyTo(*call)));
    service.way().send(std::string_view(message).substr(0, sent));
    // The client waits for the rest as long as its call may take.
    EXPECT_EQ(callSoon(service.client(), 50).get()->failure(), ZQBusFailure::TimedOut);
    service.way().shutdown(SHUT_WR);
    EXPECT_EQ(reply.get()->failure(), ZQBusFailure::PeerGone);
    EXPECT_TRUE(deaths.wait([](int n) { return n == 1; }));
  }
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

}  // namespace
}  // namespace zq
