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

TEST(AForgedSignal, ReachesNoCallback) {
  RecordingService owner;
  Watched<std::string> caller;
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
  constexpr char kPath[] = "/org/zqbus/perix";
  stranger.sendSignal(kPath, "org.zqbus.perix", "perixevent");
  stranger.sendSignal(kPath, "org.zqbus.perix", "perixevent", client.c_str());
  stranger.sendSignal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                      client.c_str());
  stranger.sync();
  // What goes through the bus now comes behind the forgeries.
  ZQBusSerivceManager::initSync(-1)->isServiceRegistered("perix");
  owner.sendEvent(0, 1);
  ASSERT_TRUE(heard.wait([](const auto& all) { return !all.empty(); }));
  EXPECT_EQ(heard.get(), std::vector<int>{1});
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
