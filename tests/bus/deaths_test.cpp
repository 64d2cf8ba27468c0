// How a client and its calls end: in a forked child, with the service, with the bus, and when the
// client itself lets go.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <thread>

#include "testing/control_client.h"
#include "tests/bus/bus_fixture.h"
#include "tests/bus/peers.h"
#include "tests/support/blocked_thread.h"
#include "tests/support/bus_world.h"
#include "tests/support/process.h"

namespace zq {
namespace {

/// What a child does with a bus that its parent uses: none of it may wait for the parent's threads.
bool failsAtOnce(ZQBusProxyInterface& service, ZQBusSerivceManager& manager) {
  bool ended = false;
  service.callWithReply(
      service.makeMethodCallMessage("echo"),
      [&](const Reply& reply) { ended = reply->failure() == ZQBusFailure::Unusable; }, -1);
  service.setDeathCallback([] {});
  service.removeEventListener("perixevent", nullptr);
  manager.waitForCallbacks();
  const auto add = [](auto& to) {
    return to.addEventListener("perixevent", new ZQBusEventCallback([](const Reply&) {}),
                               ZQBusSecurityFlags::TrustedPeer);
  };
  return ended && call(service, "echo", {})->failure() == ZQBusFailure::Unusable &&
         ZQBusSerivceManager::initSync(-1) == nullptr && !manager.isServiceRegistered("perix") &&
         manager.getServiceProxyInterface("perix", ZQBusSecurityFlags::None, 1) == nullptr &&
         !add(service) && !add(manager) && manager.droppedEvents() == 0;
}

TEST_F(Bus, CallsFailInForkedChild) {
  if (kForksWithAllocatorLocked) GTEST_SKIP() << "the child may hang in the allocator";
  auto* const manager = ZQBusSerivceManager::initSync(-1);
  Watched<int> heard;
  service->addEventListener("perixevent", counter(heard), ZQBusSecurityFlags::TrustedPeer);
  ASSERT_EQ(call(*service, "echo", {})->type(), 2);
  std::atomic<bool> stop = false;
  // As often as not the fork finds a lock taken: the connection's, or the manager's.
  std::thread busy([&] {
    while (!stop) call(*service, "echo", {});
  });
  std::thread asking([&] {
    while (!stop) manager->isServiceRegistered("perix");
  });
  for (int round = 0; round < 16; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      const bool failed = failsAtOnce(*service, *manager);
      service.reset();
      ::_exit(failed ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  stop = true;
  busy.join();
  asking.join();
  recorder->sendEvent(0, 1);
  EXPECT_TRUE(heard.wait([](int n) { return n == 1; }));
}

// --- Deaths --------------------------------------------------------------------------------------

TEST(ServiceDeath, DiffersFromSlowness) {
  const auto process = startService();
  const auto service = connect();
  ASSERT_NE(service, nullptr);
  Watched<int> deaths;
  service->setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });

  process->pause();
  EXPECT_EQ(call(*service, "getVmList", message(int32_t{0}), 200)->failure(),
            ZQBusFailure::TimedOut);
  EXPECT_EQ(deaths.get(), 0);
  auto waiting = std::async(std::launch::async, [&] { return call(*service, "getVmList", {}); });
  process->kill();
  EXPECT_EQ(waiting.get()->failure(), ZQBusFailure::PeerGone);
  ASSERT_TRUE(deaths.wait([](int n) { return n == 1; }));
  EXPECT_EQ(call(*service, "getVmList", {})->failure(), ZQBusFailure::PeerGone);
  EXPECT_FALSE(ZQBusSerivceManager::initSync(-1)->isServiceRegistered("perix"));
  EXPECT_EQ(connect(), nullptr);

  Watched<int> lateDeaths;
  service->setDeathCallback([&] { lateDeaths.change([](int& n) { ++n; }); });
  EXPECT_TRUE(lateDeaths.wait([](int n) { return n == 1; }));
  EXPECT_EQ(deaths.get(), 1);
}

TEST(ServiceDeath, IsAlsoTheLossOfItsNameToAnotherProcess) {
  FakeService former;
  Watched<int> deaths;
  former.client().setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
  former.releaseName();
  const auto successor = startService();
  EXPECT_TRUE(deaths.wait([](int n) { return n == 1; }));
}

TEST_F(Bus, DeathIsReportedInOrderAndBlocksNothing) {
  Watched<std::vector<std::string>> order;
  const auto note = [&](const std::string& what) {
    order.change([&](auto& all) { all.push_back(what); });
  };
  Watched<bool> begun;
  Watched<bool> told;
  service->addEventListener("perixevent", new ZQBusEventCallback([&](const Reply&) {
                              begun.change([](bool& yes) { yes = true; });
                              EXPECT_TRUE(told.wait([](bool yes) { return yes; }));
                              note("event");
                            }),
                            ZQBusSecurityFlags::TrustedPeer);
  Watched<bool> goOn;
  service->setDeathCallback([&] {
    note("death");
    EXPECT_TRUE(goOn.wait([](bool yes) { return yes; }));
  });
  recorder->sendEvent(0, 1);
  ASSERT_TRUE(begun.wait([](bool yes) { return yes; }));
  recorder.reset();
  service->callWithReply(
      service->makeMethodCallMessage("echo"), [&](const Reply&) { note("outcome"); }, -1);
  told.change([](bool& yes) { yes = true; });
  EXPECT_TRUE(order.wait([](const auto& all) { return all.size() == 3; }));
  auto seen = order.get();
  EXPECT_EQ(seen.front(), "event");
  goOn.change([](bool& yes) { yes = true; });
  ZQBusSerivceManager::initSync(-1)->waitForCallbacks();
}

/// Which callback runs while its interface is released.
enum class Running { Event, EventBeforeDeath, Death };

TEST_F(Bus, ReleasedInterfaceCallsNoCallback) {
  auto* const manager = ZQBusSerivceManager::initSync(-1);
  for (const auto running : {Running::Event, Running::EventBeforeDeath, Running::Death}) {
    if (recorder == nullptr) recorder = std::make_unique<RecordingService>();
    auto interface = connect();
    Watched<bool> begun;
    Watched<bool> goOn;
    Watched<int> ended;
    const auto block = [&] {
      begun.change([](bool& yes) { yes = true; });
      EXPECT_TRUE(goOn.wait([](bool yes) { return yes; }));
      manager->waitForCallbacks();  // returns at once in a callback
      ended.change([](int& n) { ++n; });
    };
    interface->addEventListener("perixevent",
                                new ZQBusEventCallback([&](const Reply&) { block(); }),
                                ZQBusSecurityFlags::TrustedPeer);
    interface->setDeathCallback(block);
    if (running != Running::Death) {
      recorder->sendEvent(0, 1);
      recorder->sendEvent(0, 2);
    } else {
      recorder.reset();
    }
    ASSERT_TRUE(begun.wait([](bool yes) { return yes; }));
    if (running == Running::EventBeforeDeath) {
      recorder.reset();
      while (manager->isServiceRegistered("perix")) std::this_thread::yield();
    }
    interface.reset();
    int endedBefore = 0;
    BlockableThread waiting([&] {
      manager->waitForCallbacks();
      endedBefore = ended.get();
    });
    waiting.awaitBlocked();
    EXPECT_FALSE(waiting.done());
    goOn.change([](bool& yes) { yes = true; });
    waiting.join();
    EXPECT_EQ(endedBefore, 1);
    // An outcome that is delivered behind all that was on its way.
    Watched<bool> last;
    service->callWithReply(
        service->makeMethodCallMessage("echo"),
        [&](const Reply&) { last.change([](bool& yes) { yes = true; }); }, -1);
    ASSERT_TRUE(last.wait([](bool yes) { return yes; }));
    manager->waitForCallbacks();
    EXPECT_EQ(ended.get(), 1);
  }
}

TEST(TimeLimit, HoldsForAllQuestionsTogether) {
  RecordingService owner;
  auto* const manager = ZQBusSerivceManager::initSync(-1);
  testBus().process().pause();
  const auto begin = std::chrono::steady_clock::now();
  {
    const ZQBusTimeLimit outer{std::chrono::milliseconds(200)};
    const ZQBusTimeLimit inner{std::chrono::hours(1)};
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(manager->isServiceRegistered("perix"));
      EXPECT_EQ(connect(), nullptr);
    }
    Watched<int> heard;
    manager->addEventListener("mountedEvent", new ZQBusEventCallback([](const Reply&) {}),
                              ZQBusSecurityFlags::TrustedPeer);
  }
  // Each question by itself would have taken 25 s.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  testBus().process().signal(SIGCONT);
  EXPECT_TRUE(manager->isServiceRegistered("perix"));
}

Watched<int>& reconnections() {
  static auto* const count = new Watched<int>;
  return *count;
}

void countReconnections(const char* line) {
  if (std::strcmp(line, "connected to the bus again") != 0) return;
  reconnections().change([](int& n) { ++n; });
}

TEST(LostBus, IsFoundAgainByIdleClient) {
  setZQBusLogSink(&countReconnections);
  const auto owner = startService();
  const auto service = connect();
  Watched<int> deaths;
  service->setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
  Watched<int> mounts;
  ZQBusSerivceManager::initSync(-1)->addEventListener("mountedEvent", counter(mounts),
                                                      ZQBusSecurityFlags::TrustedPeer);
  owner->pause();  // or it would take its name again
  testBus().restart();
  ASSERT_TRUE(reconnections().wait([](int n) { return n == 1; }));
  // Another process takes the name, while the line of the first is still open.
  const auto successor = startService();
  ASSERT_TRUE(deaths.wait([](int n) { return n == 1; }));
  askControl("sendBroadcast", message(int32_t{0}, int32_t{1}));
  EXPECT_TRUE(mounts.wait([](int n) { return n == 1; }));
}

TEST(LostBus, IsFoundAgainByClient) {
  auto owner = std::make_unique<RecordingService>();
  const auto service = connect();
  Watched<int> deaths;
  service->setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  Watched<int> mounts;
  manager->addEventListener("mountedEvent", new ZQBusEventCallback([&](const Reply&) {
                              mounts.change([](int& n) { ++n; });
                            }),
                            ZQBusSecurityFlags::TrustedPeer);
  owner->bus().sendBroadcast("mountedEvent", message(int32_t{1}));
  ASSERT_TRUE(mounts.wait([](int n) { return n == 1; }));

  testBus().kill();
  EXPECT_FALSE(manager->isServiceRegistered("perix"));
  while (ZQBusSerivceManager::initSync(100) != nullptr) std::this_thread::yield();
  if (usesDirectLines()) {
    EXPECT_EQ(call(*service, "echo", {})->type(), 2);  // a line needs no bus
    owner.reset();
  }
  ASSERT_TRUE(deaths.wait([](int n) { return n == 1; }));
  EXPECT_EQ(call(*service, "echo", {})->failure(),
            usesDirectLines() ? ZQBusFailure::PeerGone : ZQBusFailure::BusGone);

  testBus().restart();
  owner.reset();
  EXPECT_FALSE(manager->isServiceRegistered("perix"));
  RecordingService successor;
  EXPECT_TRUE(manager->isServiceRegistered("perix"));
  EXPECT_EQ(call(*connect(), "echo", {})->type(), 2);
  successor.bus().sendBroadcast("mountedEvent", message(int32_t{1}));
  EXPECT_TRUE(mounts.wait([](int n) { return n == 2; }));
}

}  // namespace
}  // namespace zq
