// The service's direct lines, whatever a client does with its own: the bus is the test.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

using namespace std::string_literals;
using wire::Peer;
using wire::Type;
using wire::Writer;

constexpr int kMaxLines = 256;
constexpr int kMaxNewLines = 32;
constexpr std::size_t kMiB = std::size_t{1} << 20;

std::string clientHandshake() {
  std::string user;
  for (const char digit : std::to_string(::geteuid())) (user += '3') += digit;
  return "\0AUTH EXTERNAL "s + user + "\r\nBEGIN\r\n";
}

bool isAnswered(Peer& line) {
  const auto answer = line.ask(perixMethod("echo"));
  return answer && answer->type == Type::Return;
}

/// As many descriptors as the process may have, for as long as this lives.
class MoreDescriptors {
 public:
  MoreDescriptors() {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit raised{before_.rlim_max, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
  }
  ~MoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  MoreDescriptors(const MoreDescriptors&) = delete;
  MoreDescriptors& operator=(const MoreDescriptors&) = delete;

 private:
  rlimit before_{};
};

/// A service that keeps the calls to "hang", and lines to it.
class ServiceLine : public testing::Test {
 protected:
  Peer open() { return bus.openLine(":1.7", std::exchange(isKnown, true)); }
  Peer openReady() {
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
  void sendEvent(const std::string& event, std::size_t size) const {
    service->sendEvent(event, message(bytes(std::string(size, 'x'))));
  }

  Keeper keeper;
  FakeBus bus;
  std::unique_ptr<ZQBusService> service = bus.start(keeper.handler());
  bool isKnown = false;
};

TEST_F(ServiceLine, AnswersCallThatComesWithHandshake) {
  Peer line = open();
  ASSERT_TRUE(line.send(clientHandshake() + wire::bytesOf(perixMethod("echo"))));
  // The answer comes behind the two lines of the handshake, and not from the line's end.
  ASSERT_TRUE(line.skipLine());
  EXPECT_EQ(line.receive()->type, Type::Return);
}

TEST_F(ServiceLine, EndsAndIsNotCountedWithoutHandshake) {
  const int before = openDescriptors();
  std::vector<Peer> silent;
  for (int i = 0; i < kMaxNewLines; ++i) silent.push_back(open());
  EXPECT_TRUE(isRefused());
  ASSERT_TRUE(silent[0].send(clientHandshake().substr(0, 5)));
  service->sendEvent("perixevent", {});
  EXPECT_EQ(bus.signal().member, "perixevent");
  for (Peer& line : silent) EXPECT_TRUE(line.hasEnded());
  silent.clear();
  Peer line = openReady();
  EXPECT_LE(openDescriptors(), before + 16);
  service->sendEvent("perixevent", {});
  service->sendBroadcast("last", {});
  EXPECT_EQ(bus.signal().member, "last");
}

TEST_F(ServiceLine, IsCutBeyondLimitOnceHandshakeIsComplete) {
  const MoreDescriptors forBothEnds;
  std::vector<Peer> lines;
  for (int i = 0; i < kMaxLines - 1; ++i) lines.push_back(openReady());
  Peer last = open();
  Peer beyond = open();
  EXPECT_TRUE(last.greet());
  EXPECT_TRUE(isAnswered(last));
  EXPECT_TRUE(isRefused());
  beyond.greet();
  EXPECT_TRUE(beyond.hasEnded());
  // Of the memory for what waits to be sent, each line has its share.
  const std::string block = Writer().number(4, kMiB).raw(std::string(kMiB, 'x')).bytes();
  for (int i = 0; i < 48 && lines[1].send(perixCall("echo").with("ay", block)); ++i) continue;
  EXPECT_TRUE(lines[1].hasEnded());
  EXPECT_TRUE(isAnswered(lines[0]));
}

// --- Backlog -------------------------------------------------------------------------------------

TEST_F(ServiceLine, SendsBatchInOrderToClientThatIsBehind) {
  constexpr int kEvents = 40;
  Peer line = openReady();
  ASSERT_TRUE(line.send(perixMethod("hang")));
  ASSERT_TRUE(keeper.waitFor(1));
  // More than the limit of a backlog, but no backlog behind it.
  const std::string block(40 * kMiB, 'x');
  service->sendEvent("large", message(bytes(block), bytes(block)));
  ASSERT_EQ(line.receive()->member, "large");
  // The first event fills the socket, and the others wait for it.
  sendEvent("first", 3 * kMiB);
  for (int i = 0; i < kEvents; ++i) service->sendEvent("second", message(i));
  keeper.release();
  EXPECT_EQ(line.receive()->member, "first");
  const auto batch = line.receive();
  EXPECT_EQ(batch->member, "Events");
  EXPECT_EQ(batch->signature.size(), kEvents * std::string("sii").size());
  EXPECT_EQ(line.receive()->type, Type::Return);
}

TEST_F(ServiceLine, IsKeptForClientThatIsAlwaysBehind) {
  Peer line = openReady();
  for (int i = 0; i < 4; ++i) sendEvent("ahead", kMiB);
  for (int i = 0; i < 100; ++i) {
    sendEvent("next", kMiB);
    ASSERT_TRUE(line.receive()) << i;
  }
}

TEST_F(ServiceLine, IsCutForClientThatDoesNotRead) {
  Peer deaf = openReady();
  Peer other = openReady();
  for (int i = 0; i < 100; ++i) {
    sendEvent("large", kMiB);
    ASSERT_TRUE(other.receive()) << i;
  }
  EXPECT_TRUE(deaf.hasEnded());
}

}  // namespace
}  // namespace zq
