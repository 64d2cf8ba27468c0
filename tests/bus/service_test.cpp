// The service and its direct lines, whatever its clients and its bus do: the bus is the test.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

using namespace std::string_literals;
using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

constexpr char kClient[] = ":1.7";
constexpr char kTooMuch[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr int kMaxNewLines = 32;
constexpr std::size_t kMiB = std::size_t{1} << 20;

bool isAnswered(Peer& line) {
  const auto answer = line.ask(perixMethod("echo"));
  return answer && answer->type == Type::Return;
}

class DescriptorLimit {
 public:
  /// Leaves this process so few more descriptors.
  explicit DescriptorLimit(int free) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    set(openDescriptors() + free);
  }
  /// As many as the process may have.
  DescriptorLimit() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    set(before_.rlim_max);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  void set(rlim_t limit) const {
    const rlimit changed{limit, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &changed), 0);
  }

  rlimit before_{};
};

/// A service that keeps the calls to "hang", a client and lines to it.
class Service : public testing::Test {
 protected:
  Peer open() { return bus.openLine(kClient, std::exchange(isKnown, true)); }
  Peer openReady() {
    Peer line = open();
    EXPECT_TRUE(line.greet());
    EXPECT_TRUE(isAnswered(line));
    return line;
  }
  /// The answer of the service to a client that calls through the bus.
  Message echo() {
    if (std::exchange(isKnown, true)) {
      bus.send(perixMethod("echo"), kClient);
    } else {
      bus.introduce(perixMethod("echo"), kClient);
    }
    return bus.answer();
  }
  bool isRefused() {
    const LineRequest request;
    bus.send(request, kClient);
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

using ServiceWithoutBus = Service;
using ServiceEnd = Service;
using UnansweredCalls = Service;
using ServiceWithoutDescriptors = Service;
using ServiceLine = Service;

TEST_F(ServiceWithoutBus, ConnectsAgain) {
  Peer line = openReady();
  for (int round = 0; round < 2; ++round) {
    bus.close();
    for (int i = 0; i < 2; ++i) bus.turnAway();
    EXPECT_TRUE(isAnswered(line));
    bus.replyNumber(bus.welcome(), 1);
    // Names and what is known of them begin anew with the bus.
    bus.introduce(perixMethod("echo"), kClient);
    EXPECT_EQ(bus.answer().type, Type::Return);
    service->sendBroadcast("mountedEvent", {});
    EXPECT_EQ(bus.signal().member, "mountedEvent");
    service->sendEvent("perixevent", {});
    EXPECT_EQ(bus.signal().member, "perixevent");
    EXPECT_TRUE(isAnswered(line));
  }
}

TEST_F(ServiceWithoutBus, IsNotToldOfItWhileBusLives) {
  Watched<int> losses;
  service->setLostCallback([&] { losses.increment(); });
  bus.close();
  for (int i = 0; i < 2; ++i) {
    bus.replyNumber(bus.welcome(), 3);
    bus.reply(bus.question("GetNameOwner"), "s", Writer().text(":1.1").bytes());
  }
  for (int i = 0; i < 5; ++i) {
    bus.replyNumber(bus.welcome(), 1);
    bus.close();  // before the service has noted its claim, or later
  }
  bus.replyNumber(bus.welcome(), 1);
  EXPECT_EQ(echo().type, Type::Return);
  EXPECT_EQ(losses.get(), 0);
}

TEST_F(ServiceWithoutBus, ServesLinesWhenOtherProcessOwnsName) {
  static auto& ownedByOthers = *new Watched<int>;  // the log outlives the test
  setZQBusLogSink([](const char* line) {
    if (std::strstr(line, "is owned by another process") != nullptr) ownedByOthers.increment();
  });
  Watched<int> losses;
  service->setLostCallback([&] { losses.increment(); });
  {
    Peer line = openReady();
    bus.close();
    bus.replyNumber(bus.welcome(), 3);
    bus.reply(bus.question("GetNameOwner"), "s", Writer().text(":1.66").bytes());
    EXPECT_TRUE(isAnswered(line));
    service->sendEvent("perixevent", {});
    EXPECT_EQ(line.receive()->member, "perixevent");
    EXPECT_TRUE(ownedByOthers.waitFor(1));
    EXPECT_EQ(losses.get(), 0);
  }
  EXPECT_TRUE(losses.waitFor(1));
  setZQBusLogSink(nullptr);
}

TEST(ServiceClaim, SurvivesLossOfBusRightBehindIt) {
  for (int round = 0; round < 5; ++round) {
    FakeBus bus;
    auto claiming = FakeBus::claim();
    bus.replyNumber(bus.welcome(), 1);
    bus.close();
    const auto service = claiming.get();
    ASSERT_TRUE(service == nullptr || bus.awaitConnection(std::chrono::seconds(10)));
  }
}

TEST_F(ServiceEnd, WaitsForNoClaimOfItsName) {
  bus.close();
  bus.welcome();  // and its claim gets no answer
  service.reset();
}

TEST_F(ServiceEnd, WaitsOneSecondForAllLines) {
  constexpr int kDeaf = 20;
  std::vector<Peer> lines;
  for (int i = 0; i <= kDeaf; ++i) lines.push_back(openReady());
  sendEvent("perixevent", 3 * kMiB);
  auto heard = soon([&] { return lines.back().receive(); });
  const auto begin = std::chrono::steady_clock::now();
  service.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  const auto event = heard.get();
  ASSERT_TRUE(event);
  EXPECT_GT(event->body.size(), 3 * kMiB);
}

TEST_F(UnansweredCalls, KeepNoDescriptors) {
  constexpr std::size_t kCalls = 80;
  echo();
  const int before = openDescriptors();
  const std::vector<int> descriptors(16, STDIN_FILENO);
  Message call = perixMethod("hang");
  call.announcedDescriptors = descriptors.size();
  for (std::size_t i = 0; i < kCalls; ++i) bus.send(call, kClient, descriptors);
  // The service has put a call away before it handles the next call.
  bus.send(perixMethod("hang"), kClient);
  ASSERT_TRUE(keeper.waitFor(kCalls + 1));
  // A thread of the service that starts may have had a file open before.
  EXPECT_LE(openDescriptors(), before);
  keeper.release();
  uint32_t serial = 0;
  for (std::size_t i = 0; i < kCalls; ++i) {
    const Message answer = bus.answer();
    EXPECT_EQ(answer.destination, kClient);
    EXPECT_GT(answer.replySerial, std::exchange(serial, answer.replySerial));
  }
}

TEST_F(UnansweredCalls, GetNoAnswerUnlessTheyExpectIt) {
  Message call = perixMethod("hang");
  constexpr uint8_t kNoReply = 1;
  call.flags = kNoReply;
  bus.introduce(call, kClient);
  ASSERT_TRUE(keeper.waitFor(1));
  bus.ping();
  keeper.release();
  service->sendBroadcast("last", {});
  EXPECT_EQ(bus.signal().member, "last");
  isKnown = true;
  EXPECT_NE(echo().replySerial, 0U);
}

TEST_F(UnansweredCalls, TakeBoundedMemory) {
  constexpr std::size_t kMost = 4;
  Peer line = openReady();
  // On the wire an empty block takes a tenth of what it takes as an argument.
  const auto emptyBlocks = [](Writer& list) { list.raw(std::string(4 * kMiB / 2, '\0')); };
  const Message large = perixMethod("hang").with("aay", Writer().array(4, emptyBlocks).bytes());
  const Message small = perixMethod("echo");
  for (int round = 0; round < 2; ++round) {
    for (std::size_t i = 0; i < kMost; ++i) ASSERT_TRUE(line.send(large));
    ASSERT_TRUE(keeper.waitFor(kMost));
    EXPECT_EQ(line.ask(small)->errorName, kTooMuch);
    bus.introduce(small, ":1.1" + std::to_string(round));
    EXPECT_EQ(bus.answer().errorName, kTooMuch);
    keeper.release();
    for (std::size_t i = 0; i < kMost; ++i) EXPECT_EQ(line.receive()->type, Type::Return);
  }
}

TEST(LineRequests, AreAllAnsweredByBusyService) {
  constexpr int kRequests = 3000;
  Watched<bool> isFree;
  FakeBus bus;
  const auto service = bus.start([&](const std::shared_ptr<ZQBusCall>& call) {
    EXPECT_TRUE(isFree.waitFor(true));
    FakeBus::echo(call);
  });
  bus.introduce(perixMethod("busy"), kClient);
  const int before = openDescriptors();
  const LineRequest request;
  auto sent = soon([&] {
    for (int i = 0; i < kRequests; ++i) {
      bus.send(request, kClient);
    }
  });
  isFree.set(true);
  int opened = 0;
  int refused = 0;
  for (int i = 0; i <= kRequests; ++i) ++(bus.answer().type == Type::Return ? opened : refused);
  sent.get();
  EXPECT_EQ(opened, kMaxNewLines + 1);
  EXPECT_EQ(refused, kRequests - kMaxNewLines);
  EXPECT_LE(openDescriptors(), before + 4 * kMaxNewLines + 8);
}

// --- Descriptors ---------------------------------------------------------------------------------

TEST_F(ServiceWithoutDescriptors, RefusesLinesAndGoesOn) {
  ASSERT_EQ(echo().type, Type::Return);
  {
    std::vector<LineRequest> requests(30);
    const DescriptorLimit few(61);
    int opened = 0;
    for (const LineRequest& request : requests) {
      bus.send(request, kClient);
      if (bus.answer().type == Type::Return) ++opened;
    }
    EXPECT_GT(opened, 0);
    EXPECT_LT(opened, 6);
    EXPECT_EQ(echo().type, Type::Return);
    bus.introduce(perixMethod("echo"), ":1.9");
    EXPECT_EQ(bus.answer().type, Type::Return);
    // A call that waits would hold the descriptors that came with it.
    std::vector<OwnedDescriptor> rest;
    while (rest.size() < 20) rest.emplace_back(::dup(STDIN_FILENO));
    bus.send(perixMethod("echo"), ":1.8");
    EXPECT_EQ(bus.answer().errorName, kTooMuch);
  }
  bus.introduce(perixMethod("echo"), ":1.8");
  EXPECT_EQ(bus.answer().type, Type::Return);
}

TEST_F(ServiceWithoutDescriptors, RefusesPendingLineRequests) {
  constexpr int kWaiting = 8;
  std::vector<LineRequest> requests(kWaiting);
  for (const LineRequest& request : requests) bus.send(request, kClient);
  const Message asked = bus.question("GetConnectionUnixUser");
  bus.ping();
  std::vector<OwnedDescriptor> many;  // of which what is to be spare is a part
  while (many.size() < 200) many.emplace_back(::dup(STDIN_FILENO));
  const DescriptorLimit few(20);
  bus.replyNumber(asked, ::geteuid());
  for (int i = 0; i < kWaiting; ++i) EXPECT_EQ(bus.answer().type, Type::Error) << i;
}

TEST_F(ServiceWithoutDescriptors, ConnectsAgain) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers need descriptors for their own checks";
  std::atomic<int> losses = 0;
  service->setLostCallback([&] { ++losses; });
  ASSERT_EQ(echo().type, Type::Return);
  const LineRequest request;
  {
    const DescriptorLimit none(0);
    std::vector<OwnedDescriptor> rest;
    while (rest.emplace_back(::dup(STDIN_FILENO))) continue;
    bus.send(request, kClient);
    EXPECT_TRUE(bus.hasEnded());
    rest.pop_back();
    rest.pop_back();  // for the test's own end of the connection
    bus.replyNumber(bus.welcome(), 1);
    bus.ping();
  }
  isKnown = false;
  EXPECT_EQ(echo().type, Type::Return);
  EXPECT_EQ(losses, 0);
}

// --- Lines ---------------------------------------------------------------------------------------

constexpr int kMaxLines = 256;

std::string clientHandshake() {
  std::string user;
  for (const char digit : std::to_string(::geteuid())) (user += '3') += digit;
  return "\0AUTH EXTERNAL "s + user + "\r\nBEGIN\r\n";
}

TEST_F(ServiceLine, AnswersCallThatComesWithHandshake) {
  Peer line = open();
  Message call = perixMethod("echo");
  call.sender = ":1.66";  // of which a client can write any
  ASSERT_TRUE(line.send(clientHandshake() + wire::bytesOf(call)));
  // The answer comes behind the two lines of the handshake, and not from the line's end.
  ASSERT_TRUE(line.skipLine());
  EXPECT_EQ(line.receive()->type, Type::Return);
  EXPECT_EQ(keeper.lastSender(), kClient);
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
  const DescriptorLimit forBothEnds;
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
