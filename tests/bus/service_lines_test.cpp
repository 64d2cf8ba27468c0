// The service's ends of its direct lines, whatever a client does with its own: the bus is the test.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

using namespace std::string_literals;
using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

constexpr int kMaxLines = 64;
constexpr int kMaxNewLines = 32;

const std::string& greeting() {
  static const std::string all = [] {
    std::string user;
    for (const char digit : std::to_string(::geteuid())) (user += '3') += digit;
    return "\0AUTH EXTERNAL "s + user + "\r\nBEGIN\r\n";
  }();
  return all;
}

bool isAnswered(Peer& line) {
  const auto answer = line.ask(perixMethod("echo"));
  return answer && answer->type == Type::Return;
}

class ALine : public testing::Test {
 protected:
  Peer open() { return bus.openLine(":1.7", std::exchange(isKnown, true)); }
  Peer openAndGreet() {
    Peer line = open();
    EXPECT_TRUE(line.greet());
    EXPECT_TRUE(isAnswered(line));
    return line;
  }
  bool isRefused() {
    LineRequest request;
    bus.send(request.call, ":1.7", std::array{request.theirs.get()});
    return bus.answer().errorName == "System.Error.EMFILE";
  }

  FakeBus bus;
  std::unique_ptr<ZQBusService> service = bus.start();
  bool isKnown = false;
};

TEST_F(ALine, AnswersTheCallThatComesWithTheEndOfTheHandshake) {
  Peer line = open();
  ASSERT_TRUE(line.send(greeting() + wire::bytesOf(perixMethod("echo"))));
  // The two lines of the handshake, and the answer, which is ours and not what comes when the
  // connection ends.
  ASSERT_TRUE(line.skipLine());
  EXPECT_EQ(line.receive()->type, Type::Return);
}

TEST_F(ALine, WhoseClientNeverGreetsEndsAndIsNotCounted) {
  const int before = openDescriptors();
  std::vector<Peer> silent;
  for (int i = 0; i < kMaxNewLines; ++i) silent.push_back(open());
  EXPECT_TRUE(isRefused());
  ASSERT_TRUE(silent[0].send(greeting().substr(0, 5)));
  service->sendEvent("perixevent", {});
  EXPECT_EQ(bus.signal().member, "perixevent");
  for (Peer& line : silent) EXPECT_TRUE(line.hasEnded());
  silent.clear();
  Peer line = openAndGreet();
  EXPECT_LE(openDescriptors(), before + 16);
  service->sendEvent("perixevent", {});
  service->sendBroadcast("last", {});
  EXPECT_EQ(bus.signal().member, "last");
}

TEST_F(ALine, BeyondTheirNumberIsCutOnceItsClientGreets) {
  std::vector<Peer> lines;
  for (int i = 0; i < kMaxLines - 1; ++i) lines.push_back(openAndGreet());
  Peer last = open();
  Peer beyond = open();
  EXPECT_TRUE(last.greet());
  EXPECT_TRUE(isAnswered(last));
  EXPECT_TRUE(isRefused());
  beyond.greet();
  EXPECT_TRUE(beyond.hasEnded());
  EXPECT_TRUE(isAnswered(lines[0]));
}

TEST_F(ALine, CarriesNoDescriptors) {
  const int before = openDescriptors();
  const std::array copies{0, 0, 0};
  for (const bool isGreeted : {false, true}) {
    Peer line = isGreeted ? openAndGreet() : open();
    line.send(std::string_view(greeting()).substr(0, 10), copies);
    EXPECT_TRUE(line.hasEnded());
  }
  openAndGreet();
  EXPECT_LE(openDescriptors(), before + 8);
}

TEST_F(ALine, OfAnOddClientIsAnsweredOrCutAndOthersGoOn) {
  const Message hello = Message::call("/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello");
  Message claimed = perixMethod("echo");
  claimed.sender = ":1.1";
  Message wrongVersion = perixMethod("echo");
  wrongVersion.version = 2;
  Message unknownType = perixMethod("echo");
  unknownType.type = static_cast<Type>(9);
  Message reply = Message::replyTo(hello);
  const std::string whole =
      wire::bytesOf(perixMethod("echo").with("s", Writer().text("x").bytes()));
  const struct {
    const char* name;
    std::string bytes;
    bool isCut;
  } rows[] = {
      {"a call to the bus", wire::bytesOf(hello), false},
      {"a reply to nothing", wire::bytesOf(reply), false},
      {"an event", wire::bytesOf(Message::signal("/org/zqbus/perix", "org.zqbus.perix", "x")),
       false},
      {"a name that the client gives itself", wire::bytesOf(claimed), false},
      {"a call to another object", wire::bytesOf(Message::call("/x", "org.zqbus.perix", "x")),
       false},
      {"a type that does not exist", wire::bytesOf(unknownType), false},
      {"another version", wire::bytesOf(wrongVersion), false},
      {"no message", std::string(64, 'x'), true},
      {"a message of 200 MB", "l\1\0\1"s + "\0\0\0\x0c"s + "\1\0\0\0"s + "\0\0\0\0"s, true},
  };
  Peer other = openAndGreet();
  Peer half = openAndGreet();
  ASSERT_TRUE(half.send(std::string_view(whole).substr(0, whole.size() / 2)));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Peer line = openAndGreet();
    ASSERT_TRUE(line.send(row.bytes));
    if (row.isCut) {
      EXPECT_TRUE(line.hasEnded());
    } else {
      EXPECT_TRUE(isAnswered(line));
    }
    EXPECT_TRUE(isAnswered(other));
  }
  ASSERT_TRUE(half.send(std::string_view(whole).substr(whole.size() / 2)));
  EXPECT_EQ(half.receive()->type, Type::Return);
}

TEST_F(ALine, IsOpenedOnTheStreamSocketOfARequestAlone) {
  openAndGreet();
  Message call = LineRequest().call;
  bus.send(Message(call).with("h", Writer().number(4, 7).bytes()), ":1.7", std::array{0});
  EXPECT_EQ(bus.answer().errorName, "org.freedesktop.DBus.Error.InvalidArgs");
  int datagrams[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, datagrams), 0);
  const OwnedDescriptor theirs(datagrams[0]);
  const OwnedDescriptor ours(datagrams[1]);
  bus.send(call, ":1.7", std::array{theirs.get()});
  EXPECT_EQ(bus.answer().errorName, "org.freedesktop.DBus.Error.InvalidArgs");
}

}  // namespace
}  // namespace zq
