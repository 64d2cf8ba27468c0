// The service's death and return, on any bus.

#include <future>

#include "tests/proxy/callbacks.h"
#include "tests/support/recording_service.h"
#include "tests/support/sleeps.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

TEST(ServiceName, HasOneOwnerAndAnotherEachTime) {
  ZQBusSerivceManager& bus = *ZQBusSerivceManager::initSync(-1);
  std::string before;
  for (int claim = 1; claim <= 2; ++claim) {
    auto service = std::make_unique<RecordingService>();
    std::string error;
    EXPECT_EQ(ZQBusService::claim(
                  "perix", {}, [](const auto&) {}, error),
              nullptr);
    EXPECT_NE(error, "");
    const auto way = bus.getServiceProxyInterface("perix", ZQBusSecurityFlags::None, 1);
    ASSERT_NE(way, nullptr);
    EXPECT_NE(way->owner(), std::exchange(before, way->owner()));
    service.reset();
    const auto call = way->makeMethodCallMessage("echo");
    EXPECT_EQ(way->callWithReplyBlocking(call, -1)->failure(), ZQBusFailure::PeerGone);
    EXPECT_EQ(bus.getServiceProxyInterface("perix", ZQBusSecurityFlags::None, 1), nullptr);
  }
}

TEST(Proxy, ConnectsWhenServiceComes) {
  PerixProxy* const proxy = PerixProxy::getInstance();
  ASSERT_NE(proxy, nullptr);
  EXPECT_EQ(proxy->Init(), -1);
  EXPECT_EQ(proxy->ConnectDevice("office-1", 1), -1);
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::NoService);
  proxy->ReleaseService();
  const std::string log = logText();
  for (const char* line :
       {"\"get zqbus interface failed\"", "\"retry to get zqbus interface failed\"",
        "\"wait perixserviced restart when it death\""}) {
    EXPECT_NE(log.find(std::string("\"Error:\" ") + line), std::string::npos) << line;
  }
  EXPECT_NE(log.find("perix_proxy_devices.cpp ConnectDevice("), std::string::npos);

  const RecordingService service;
  EXPECT_EQ(PerixProxy::getInstance(), proxy);
  EXPECT_EQ(proxy->Init(), 0);
  EXPECT_EQ(proxy->GetVmIdInt("office-1"), 1U);
}

TEST(Death, IsToldOnceToEachDesktop) {
  auto service = std::make_unique<RecordingService>();
  PerixProxy& proxy = *PerixProxy::getInstance();
  Watched<int> deaths[3];
  proxy.RegisterCallback("office-1", countDeath, &deaths[0]);
  proxy.RegisterCallback("office-1", countDeath, &deaths[1]);  // in place of the first
  proxy.RegisterCallback("unknown", countDeath, &deaths[2]);
  ASSERT_EQ(proxy.GetVmIdInt("office-1"), 1U);

  Watched<std::shared_ptr<ZQBusCall>> hanging;
  service->answerWith([&](const std::shared_ptr<ZQBusCall>& call) { hanging.set(call); });
  auto waiting = std::async(std::launch::async, [&] {
    EXPECT_TRUE(proxy.GetDeviceList("office-1").empty());
    return PerixLastFailure().failure;
  });
  ASSERT_TRUE(hanging.wait([](const auto& held) { return held != nullptr; }));
  service.reset();
  EXPECT_EQ(waiting.get(), PerixFailure::Died);
  ASSERT_TRUE(sleeps().wait([](int count) { return count >= 2; }));
  EXPECT_EQ(proxy.GetVmIdString(1), "");
  EXPECT_EQ(deaths[1].get(), 0);  // told once the service is back
  service = std::make_unique<RecordingService>();
  ASSERT_TRUE(deaths[1].waitFor(1));
  ASSERT_TRUE(deaths[2].waitFor(1));
  EXPECT_EQ(deaths[0].get(), 0);
  EXPECT_EQ(proxy.ConnectDevice("office-1", 1), 0);
}

}  // namespace
}  // namespace zq
