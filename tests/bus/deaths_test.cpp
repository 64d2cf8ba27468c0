// How a client and its calls end: in a forked child, with the service, with the bus, and when the
// client itself lets go.
#include <csignal>
#include <cstring>

#include "testing/control_client.h"
#include "tests/bus/bus_fixture.h"
#include "tests/bus/fake_bus.h"
#include "tests/support/blocked_thread.h"
#include "tests/support/child.h"

namespace zq {
namespace {

/// Whether all that a child does with the bus of its parent fails, without waiting for a thread.
bool failsAtOnce(ZQBusProxyInterface& service, ZQBusSerivceManager& manager) {
  bool ended = false;
  callAsynchronously(service, "echo", [&](const Reply& reply) {
    ended = reply->failure() == ZQBusFailure::Unusable;
  });
  service.setDeathCallback([] {});
  service.removeEventListener("perixevent", nullptr);
  manager.waitForCallbacks();
  return ended && call(service, "echo", {})->failure() == ZQBusFailure::Unusable &&
         ZQBusSerivceManager::initSync(-1) == nullptr && !manager.isServiceRegistered("perix") &&
         manager.getServiceProxyInterface("perix", ZQBusSecurityFlags::None, 1) == nullptr &&
         !listen(service, [](const Reply&) {}) && !listen(manager, [](const Reply&) {}) &&
         manager.droppedEvents() == 0;
}

TEST_F(Bus, CallsFailInForkedChild) {
  if (kSanitized) GTEST_SKIP() << kHangsInSanitizer;
  Watched<int> heard;
  listen(*service, counter(heard));
  ASSERT_EQ(call(*service, "echo", {})->type(), 2);
  std::atomic<bool> stop = false;
  // As often as not the fork finds a lock taken: the connection's, or the manager's.
  std::thread busy([&] {
    while (!stop) call(*service, "echo", {});
  });
  std::thread asking([&] {
    while (!stop) manager.isServiceRegistered("perix");
  });
  for (int round = 0; round < 16; ++round) {
    EXPECT_EQ(inChild([&] {
                const bool failed = failsAtOnce(*service, manager);
                service.reset();
                return failed ? "" : "does not fail";
              }),
              "");
  }
  stop = true;
  busy.join();
  asking.join();
  recorder->sendEvent(0, 1);
  EXPECT_TRUE(heard.waitFor(1));
}

// --- Deaths --------------------------------------------------------------------------------------

TEST(ServiceDeath, DiffersFromSlowness) {
  const auto process = startService();
  const auto service = connect();
  ASSERT_NE(service, nullptr);
  Deaths deaths(*service);

  process->pause();
  EXPECT_EQ(call(*service, "getVmList", message(int32_t{0}), 200)->failure(),
            ZQBusFailure::TimedOut);
  EXPECT_EQ(deaths.get(), 0);
  Watched<ZQBusFailure> outcome;
  callAsynchronously(*service, "getVmList",
                     [&](const Reply& reply) { outcome.set(reply->failure()); });
  auto waiting = soon([&] { return call(*service, "getVmList", {}); });
  process->kill();
  EXPECT_TRUE(outcome.wait([](ZQBusFailure failure) { return failure == ZQBusFailure::PeerGone; }));
  EXPECT_EQ(waiting.get()->failure(), ZQBusFailure::PeerGone);
  ASSERT_TRUE(deaths.waitFor(1));
  EXPECT_EQ(call(*service, "getVmList", {})->failure(), ZQBusFailure::PeerGone);
  EXPECT_FALSE(ZQBusSerivceManager::initSync(-1)->isServiceRegistered("perix"));
  EXPECT_EQ(connect(), nullptr);

  EXPECT_TRUE(Deaths(*service).waitFor(1));
  EXPECT_EQ(deaths.get(), 1);
}

TEST(ServiceDeath, IsLossOfNameToOtherProcessToo) {
  FakeService former;
  Deaths deaths(former.client());
  auto waiting = callSoon(former.client());
  ASSERT_TRUE(former.nextCall());
  former.releaseName();
  const auto successor = startService();
  // Before its time-out.
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(waiting.get()->failure(), ZQBusFailure::PeerGone);
  EXPECT_TRUE(deaths.waitFor(1));
}

TEST_F(Bus, DeathIsReportedInOrderAndBlocksNothing) {
  Watched<std::vector<std::string>> order;
  BlockingPoint event;
  listen(*service, [&](const Reply&) {
    event.stop();
    order.append("event");
  });
  BlockingPoint death;
  service->setDeathCallback([&] {
    order.append("death");
    death.stop();
  });
  recorder->sendEvent(0, 1);
  event.awaitStop();
  recorder.reset();
  callAsynchronously(*service, "echo", [&](const Reply&) { order.append("outcome"); });
  event.go();
  EXPECT_TRUE(order.waitForSize(3));
  EXPECT_EQ(order.get().front(), "event");
  death.go();
  manager.waitForCallbacks();
}

/// Which callback runs while its interface is released.
enum class Running { Event, EventBeforeDeath, Death };

TEST_F(Bus, ReleasedInterfaceCallsNoCallback) {
  for (const auto running : {Running::Event, Running::EventBeforeDeath, Running::Death}) {
    if (recorder == nullptr) recorder = std::make_unique<RecordingService>();
    auto interface = connect();
    BlockingPoint point;
    std::atomic<int> ended = 0;
    const auto block = [&] {
      point.stop();
      manager.waitForCallbacks();  // returns at once in a callback
      ++ended;
    };
    listen(*interface, [&](const Reply&) { block(); });
    interface->setDeathCallback(block);
    if (running != Running::Death) {
      recorder->sendEvent(0, 1);
      recorder->sendEvent(0, 2);
    } else {
      recorder.reset();
    }
    point.awaitStop();
    if (running == Running::EventBeforeDeath) recorder.reset();
    interface.reset();
    int endedBefore = 0;
    BlockableThread waiting([&] {
      manager.waitForCallbacks();
      endedBefore = ended;
    });
    EXPECT_TRUE(waiting.awaitBlocked());
    point.go();
    waiting.join();
    EXPECT_EQ(endedBefore, 1);
    // An outcome that is delivered behind all that was on its way.
    Watched<int> last;
    callAsynchronously(*service, "echo", counter(last));
    ASSERT_TRUE(last.waitFor(1));
    manager.waitForCallbacks();
    EXPECT_EQ(ended, 1);
  }
}

TEST(TimeLimit, HoldsForAllQuestionsTogether) {
  const auto begin = std::chrono::steady_clock::now();
  {
    const FakeBus silent;
    const ZQBusTimeLimit limit{std::chrono::milliseconds(100)};
    EXPECT_EQ(ZQBusSerivceManager::initSync(-1), nullptr);
  }
  RecordingService owner;
  auto* const manager = ZQBusSerivceManager::initSync(-1);
  const auto service = connect();
  testBus().process().pause();
  {
    const ZQBusTimeLimit outer{std::chrono::milliseconds(200)};
    const ZQBusTimeLimit inner{std::chrono::hours(1)};
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(manager->isServiceRegistered("perix"));
      EXPECT_EQ(connect(), nullptr);
    }
    listen(
        *manager, [](const Reply&) {}, "mountedEvent");
    listen(*service, [](const Reply&) {});
  }
  // Each question by itself would have taken 25 s.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  testBus().process().signal(SIGCONT);
  EXPECT_TRUE(manager->isServiceRegistered("perix"));
}

TEST(LostBus, IsFoundAgainByIdleClient) {
  static auto& reconnections = *new Watched<int>;  // the log outlives the test
  setZQBusLogSink([](const char* line) {
    if (std::strcmp(line, "connected to the bus again") == 0) reconnections.increment();
  });
  const auto owner = startService();
  const auto service = connect();
  Deaths deaths(*service);
  Watched<int> mounts;
  listen(*ZQBusSerivceManager::initSync(-1), counter(mounts), "mountedEvent");
  owner->pause();  // or it would take its name again
  testBus().restart();
  ASSERT_TRUE(reconnections.waitFor(1));
  // Another process takes the name, while the line of the first is still open.
  const auto successor = startService();
  ASSERT_TRUE(deaths.waitFor(1));
  askControl("sendBroadcast", message(int32_t{0}, int32_t{1}));
  EXPECT_TRUE(mounts.waitFor(1));
}

TEST(LostBus, IsFoundAgainByClient) {
  auto owner = std::make_unique<RecordingService>();
  const auto service = connect();
  Deaths deaths(*service);
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  Watched<int> mounts;
  listen(*manager, counter(mounts), "mountedEvent");
  owner->bus().sendBroadcast("mountedEvent", message(int32_t{1}));
  ASSERT_TRUE(mounts.waitFor(1));

  testBus().kill();
  EXPECT_FALSE(manager->isServiceRegistered("perix"));
  while (ZQBusSerivceManager::initSync(100) != nullptr) std::this_thread::yield();
  if (usesDirectLines()) {
    EXPECT_EQ(call(*service, "echo", {})->type(), 2);  // a line needs no bus
    owner.reset();
  }
  ASSERT_TRUE(deaths.waitFor(1));
  EXPECT_EQ(call(*service, "echo", {})->failure(),
            usesDirectLines() ? ZQBusFailure::PeerGone : ZQBusFailure::BusGone);

  testBus().restart();
  owner.reset();
  EXPECT_FALSE(manager->isServiceRegistered("perix"));
  RecordingService successor;
  EXPECT_TRUE(manager->isServiceRegistered("perix"));
  EXPECT_EQ(call(*connect(), "echo", {})->type(), 2);
  successor.bus().sendBroadcast("mountedEvent", message(int32_t{1}));
  EXPECT_TRUE(mounts.waitFor(2));
}

}  // namespace
}  // namespace zq
