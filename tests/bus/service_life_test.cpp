// What the service survives, keeps and lets go of: the bus is the test.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "tests/bus/fake_bus.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

constexpr char kClient[] = ":1.7";
constexpr std::size_t kMiB = std::size_t{1} << 20;

bool isAnswered(Peer& line) {
  const auto answer = line.ask(perixMethod("echo"));
  return answer && answer->type == Type::Return;
}

TEST(ServiceWithoutBus, ConnectsAgain) {
  FakeBus bus;
  const auto service = bus.start();
  Peer line = bus.openLine(kClient);
  ASSERT_TRUE(line.greet());
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

Watched<int>& ownedByOthers() {
  static auto* const count = new Watched<int>;
  return *count;
}
void countOwned(const char* line) {
  if (std::strstr(line, "is owned by another process") == nullptr) return;
  ownedByOthers().change([](int& n) { ++n; });
}

TEST(ServiceWithoutBus, ServesLinesWhenOtherProcessOwnsName) {
  setZQBusLogSink(&countOwned);
  FakeBus bus;
  const auto service = bus.start();
  Watched<int> losses;
  service->setLostCallback([&] { losses.change([](int& n) { ++n; }); });
  {
    Peer line = bus.openLine(kClient);
    ASSERT_TRUE(line.greet());
    bus.close();
    bus.replyNumber(bus.welcome(), 3);
    EXPECT_TRUE(isAnswered(line));
    service->sendEvent("perixevent", {});
    EXPECT_EQ(line.receive()->member, "perixevent");
    EXPECT_EQ(losses.get(), 0);
  }
  EXPECT_TRUE(losses.wait([](int n) { return n == 1; }));
  EXPECT_TRUE(ownedByOthers().wait([](int n) { return n == 1; }));
  setZQBusLogSink(nullptr);
}

TEST(ServiceWithoutBus, ConnectsAgainWhenItIsLostRightBehindTheClaim) {
  for (int round = 0; round < 5; ++round) {
    FakeBus bus;
    auto claiming = FakeBus::claim();
    bus.replyNumber(bus.welcome(), 1);
    bus.close();
    const auto service = claiming.get();
    ASSERT_TRUE(service == nullptr || bus.awaitConnection(std::chrono::seconds(10)));
  }
}

TEST(ServiceEnd, WaitsForNoClaimOfItsName) {
  FakeBus bus;
  auto service = bus.start();
  bus.close();
  bus.welcome();  // and its claim gets no answer
  service.reset();
}

TEST(ServiceEnd, WaitsOneSecondForAllLines) {
  constexpr int kDeaf = 20;
  FakeBus bus;
  auto service = bus.start();
  std::vector<Peer> lines;
  for (int i = 0; i <= kDeaf; ++i) {
    lines.push_back(bus.openLine(kClient, i > 0));
    ASSERT_TRUE(lines.back().greet());
    ASSERT_TRUE(isAnswered(lines.back()));
  }
  const std::string block(3 * kMiB, 'x');
  service->sendEvent("perixevent", message(bytes(block)));
  auto heard = std::async(std::launch::async, [&] { return lines.back().receive(); });
  const auto begin = std::chrono::steady_clock::now();
  service.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  const auto event = heard.get();
  ASSERT_TRUE(event);
  EXPECT_GT(event->body.size(), block.size());
}

TEST(UnansweredCalls, KeepNoDescriptors) {
  constexpr std::size_t kCalls = 80;
  Keeper keeper;
  FakeBus bus;
  const auto service = bus.start(keeper.handler());
  bus.introduce(perixMethod("echo"), kClient);
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
    const bool isFirst = i == 0;
    EXPECT_TRUE(isFirst || answer.replySerial > serial);
    serial = answer.replySerial;
  }
}

TEST(UnansweredCalls, GetNoAnswerUnlessTheyExpectIt) {
  Keeper keeper;
  FakeBus bus;
  const auto service = bus.start(keeper.handler());
  Message call = perixMethod("hang");
  constexpr uint8_t kNoReply = 1;
  call.flags = kNoReply;
  bus.introduce(call, kClient);
  ASSERT_TRUE(keeper.waitFor(1));
  bus.ping();
  keeper.release();
  service->sendBroadcast("last", {});
  EXPECT_EQ(bus.signal().member, "last");
  bus.send(perixMethod("echo"), kClient);
  EXPECT_NE(bus.answer().replySerial, 0U);
}

TEST(UnansweredCalls, TakeBoundedMemory) {
  constexpr std::size_t kMost = 4;
  Keeper keeper;
  FakeBus bus;
  const auto service = bus.start(keeper.handler());
  Peer line = bus.openLine(kClient);
  ASSERT_TRUE(line.greet());
  // On the wire an empty block takes a tenth of what it takes as an argument.
  const Message large =
      perixMethod("hang").with("aay", Writer()
                                          .array(4,
                                                 [](Writer& list) {
                                                   for (std::size_t i = 0; i < kMiB / 2; ++i)
                                                     list.number(4, 0);
                                                 })
                                          .bytes());
  const Message small = perixMethod("echo");
  for (int round = 0; round < 2; ++round) {
    for (std::size_t i = 0; i < kMost; ++i) ASSERT_TRUE(line.send(large));
    ASSERT_TRUE(keeper.waitFor(kMost));
    EXPECT_EQ(line.ask(small)->errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
    bus.introduce(small, ":1.1" + std::to_string(round));
    EXPECT_EQ(bus.answer().errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
    keeper.release();
    for (std::size_t i = 0; i < kMost; ++i) EXPECT_EQ(line.receive()->type, Type::Return);
  }
}

TEST(LineRequests, AreAllAnsweredByBusyService) {
  constexpr int kRequests = 3000;
  Watched<bool> isFree;
  FakeBus bus;
  const auto service = bus.start([&](const std::shared_ptr<ZQBusCall>& call) {
    EXPECT_TRUE(isFree.wait([](bool yes) { return yes; }));
    FakeBus::echo(call);
  });
  bus.introduce(perixMethod("busy"), kClient);
  const int before = openDescriptors();
  const LineRequest request;
  auto sent = std::async(std::launch::async, [&] {
    for (int i = 0; i < kRequests; ++i) {
      bus.send(request.call, kClient, std::array{request.theirs.get()});
    }
  });
  isFree.change([](bool& yes) { yes = true; });
  int opened = 0;
  int refused = 0;
  for (int i = 0; i <= kRequests; ++i) ++(bus.answer().type == Type::Return ? opened : refused);
  sent.get();
  EXPECT_EQ(opened, 32 + 1);
  EXPECT_EQ(refused, kRequests - 32);
  EXPECT_LE(openDescriptors(), before + 4 * 32 + 8);
}

// --- Descriptors ---------------------------------------------------------------------------------

/// Leaves this process with so few descriptors, for as long as this lives.
class FewDescriptors {
 public:
  explicit FewDescriptors(int free) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{static_cast<rlim_t>(openDescriptors() + free), before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

TEST(ServiceWithoutDescriptors, RefusesLinesAndGoesOn) {
  FakeBus bus;
  const auto service = bus.start();
  bus.introduce(perixMethod("echo"), kClient);
  ASSERT_EQ(bus.answer().type, Type::Return);
  {
    std::vector<LineRequest> requests(30);
    const FewDescriptors few(61);
    int opened = 0;
    for (const LineRequest& request : requests) {
      bus.send(request.call, kClient, std::array{request.theirs.get()});
      if (bus.answer().type == Type::Return) ++opened;
    }
    EXPECT_GT(opened, 0);
    EXPECT_LT(opened, 6);
    bus.send(perixMethod("echo"), kClient);
    EXPECT_EQ(bus.answer().type, Type::Return);
    bus.introduce(perixMethod("echo"), ":1.9");
    EXPECT_EQ(bus.answer().type, Type::Return);
    // A call that waits would hold the descriptors that came with it.
    std::vector<OwnedDescriptor> rest;
    while (rest.size() < 20) rest.emplace_back(::dup(STDIN_FILENO));
    bus.send(perixMethod("echo"), ":1.8");
    EXPECT_EQ(bus.answer().errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
  }
  bus.introduce(perixMethod("echo"), ":1.8");
  EXPECT_EQ(bus.answer().type, Type::Return);
}

TEST(ServiceWithoutDescriptors, RefusesPendingLineRequests) {
  constexpr int kWaiting = 8;
  FakeBus bus;
  const auto service = bus.start();
  std::vector<LineRequest> requests(kWaiting);
  for (const LineRequest& request : requests) {
    bus.send(request.call, kClient, std::array{request.theirs.get()});
  }
  const Message asked = bus.question("GetConnectionUnixUser");
  bus.ping();
  std::vector<OwnedDescriptor> many;  // of which what is to be spare is a part
  while (many.size() < 200) many.emplace_back(::dup(STDIN_FILENO));
  const FewDescriptors few(20);
  bus.replyNumber(asked, ::geteuid());
  for (int i = 0; i < kWaiting; ++i) EXPECT_EQ(bus.answer().type, Type::Error) << i;
}

TEST(ServiceWithoutDescriptors, ConnectsAgain) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers need descriptors for their own checks";
  FakeBus bus;
  const auto service = bus.start();
  std::atomic<int> losses = 0;
  service->setLostCallback([&] { ++losses; });
  bus.introduce(perixMethod("echo"), kClient);
  ASSERT_EQ(bus.answer().type, Type::Return);
  const LineRequest request;
  {
    const FewDescriptors none(0);
    std::vector<OwnedDescriptor> rest;
    while (rest.emplace_back(::dup(STDIN_FILENO))) continue;
    bus.send(request.call, kClient, std::array{request.theirs.get()});
    EXPECT_TRUE(bus.hasEnded());
    rest.pop_back();
    rest.pop_back();  // for the test's own end of the connection
    bus.replyNumber(bus.welcome(), 1);
    bus.ping();
  }
  bus.introduce(perixMethod("echo"), kClient);
  EXPECT_EQ(bus.answer().type, Type::Return);
  EXPECT_EQ(losses, 0);
}

}  // namespace
}  // namespace zq
