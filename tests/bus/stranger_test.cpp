// What other clients of the same bus can do to ours, and see of it.
#include <gtest/gtest.h>

#include "tests/bus/stranger.h"
#include "tests/support/bus_world.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

std::shared_ptr<ZQBusProxyInterface> connect() {
  return ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::TrustedPeer, 1);
}

struct Forgery {
  const char* path;
  const char* interface;
  const char* member;
  ZQBusMessage arguments;
};

TEST(AForgedSignal, ReachesNoCallback) {
  Watched<std::string> caller;
  RecordingService owner;
  owner.answerWith([&](const std::shared_ptr<ZQBusCall>& call) {
    caller.change([&](std::string& name) { name = call->sender(); });
    call->reply(message(int32_t{0}));
  });
  const auto service = connect();
  Watched<std::vector<int>> heard;
  const auto note = [&](const std::shared_ptr<ZQBusMessage>& event) {
    heard.change([&](auto& all) { all.push_back(event->readInt32(1)); });
  };
  service->addEventListener("perixevent", new ZQBusEventCallback(note),
                            ZQBusSecurityFlags::TrustedPeer);
  Watched<int> deaths;
  service->setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
  service->callWithReplyBlocking(service->makeMethodCallMessage("whoami"), 5000);

  const std::string client = caller.get();
  Stranger stranger;
  const std::string name = "org.zqbus.perix";
  constexpr char kPath[] = "/org/zqbus/perix";
  constexpr char kBus[] = "org.freedesktop.DBus";
  const std::vector<Forgery> forgeries = {
      {kPath, "org.zqbus.perix", "perixevent", message(int32_t{0}, int32_t{666})},
      {kPath, "org.zqbus.Direct", "Events",
       message(std::string("perixevent"), int32_t{2}, int32_t{0}, int32_t{667})},
      {"/org/freedesktop/DBus", kBus, "NameOwnerChanged",
       message(name, service->owner(), std::string())},
      {"/org/freedesktop/DBus", kBus, "NameOwnerChanged",
       message(name, service->owner(), stranger.name())},
  };
  for (const Forgery& forged : forgeries) {
    for (const char* to : {static_cast<const char*>(nullptr), client.c_str()}) {
      // Nobody but the daemon may tell everybody of names; to one connection alone, anybody may.
      if (to == nullptr && forged.interface == kBus) continue;
      stranger.sendSignal(forged.path, forged.interface, forged.member, forged.arguments, to);
    }
  }
  stranger.sync();
  // What goes through the bus now comes behind the forgeries.
  ZQBusSerivceManager::initSync(-1)->isServiceRegistered("perix");
  owner.sendEvent(0, 1);
  ASSERT_TRUE(heard.wait([](const auto& all) { return !all.empty(); }));
  EXPECT_EQ(heard.get(), std::vector<int>{1});
  EXPECT_EQ(service->callWithReplyBlocking(service->makeMethodCallMessage("whoami"), 5000)->type(),
            2);
  EXPECT_EQ(deaths.get(), 0);
}

TEST(AMonitor, SeesTheServicesTrafficOnlyWhenItGoesThroughTheBus) {
  RecordingService owner;
  const auto service = connect();
  Watched<int> heard;
  service->addEventListener(
      "perixevent", new ZQBusEventCallback([&](const auto&) { heard.change([](int& n) { ++n; }); }),
      ZQBusSecurityFlags::TrustedPeer);
  Stranger monitor;
  monitor.becomeMonitor();

  const auto token = service->makeMethodCallMessage("updateDriveToken");
  token->appendString("secret");
  EXPECT_EQ(service->callWithReplyBlocking(token, 5000)->type(), 2);
  owner.sendEvent(0, 4);
  ASSERT_TRUE(heard.wait([](int n) { return n == 1; }));
  owner.bus().sendBroadcast("last", {});

  const auto seen = monitor.seenUntil("last");
  const auto count = [&](const char* what) { return std::count(seen.begin(), seen.end(), what); };
  const int expected = usesDirectLines() ? 0 : 1;
  EXPECT_EQ(count("org.zqbus.perix.updateDriveToken"), expected);
  EXPECT_EQ(count("org.zqbus.perix.perixevent"), expected);
}

TEST(APlainClient, HearsEventsThroughTheBusBesideOneWithALine) {
  RecordingService owner;
  const auto service = connect();
  Stranger monitor;
  monitor.becomeMonitor();
  Stranger plain;
  ASSERT_TRUE(plain.call("getVmList"));
  owner.sendEvent(0, 4);
  owner.bus().sendBroadcast("last", {});
  const auto seen = monitor.seenUntil("last");
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "org.zqbus.perix.perixevent"), 1);
}

}  // namespace
}  // namespace zq
