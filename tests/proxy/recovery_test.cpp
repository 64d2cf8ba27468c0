// The service's death and return, with the service in a process of its own.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "perix/perix_proxy.h"
#include "tests/support/sleeps.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr int kDeaths = kSanitized ? 30 : 60;

int countDeath(uint16_t code, void* data, void* userdata) {
  EXPECT_EQ(code, SERVICE_DIED);
  EXPECT_EQ(data, nullptr);
  static_cast<Watched<int>*>(userdata)->change([](int& deaths) { ++deaths; });
  return 0;
}

void freeList(const std::list<CommonDevice*>& list) {
  PerixProxy::getInstance()->FreeDeviceList(list);
}

/// Waits until the proxy is connected again; what asks without a connection fails at once.
void awaitConnection() {
  while (PerixProxy::getInstance()->GetVmList().empty()) std::this_thread::yield();
}

TEST(AProxy, WithoutAServiceFailsAtOnceAndConnectsWhenItComes) {
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

  const auto service = startService();
  EXPECT_EQ(PerixProxy::getInstance(), proxy);
  EXPECT_EQ(proxy->Init(), 0);
  EXPECT_EQ(proxy->GetVmIdInt("office-1"), 1U);
}

TEST(AProxy, TellsEveryDesktopOfADeathOnceAndGoesOn) {
  auto service = startService();
  PerixProxy& proxy = *PerixProxy::getInstance();
  Watched<int> deaths[3];
  proxy.RegisterCallback("office-1", countDeath, &deaths[0]);
  proxy.RegisterCallback("office-1", countDeath, &deaths[1]);  // in place of the first
  proxy.RegisterCallback("unknown", countDeath, &deaths[2]);
  ASSERT_EQ(proxy.GetVmIdInt("office-1"), 1U);

  auto waiting = std::async(std::launch::async, [&] {
    control("setFault",
            message(std::string("getDeviceList"), std::string("crash"), int64_t{0}, int32_t{1}));
    const auto list = proxy.GetDeviceList("office-1");
    EXPECT_EQ(PerixLastFailure().failure, PerixFailure::Died);
    return list.size();
  });
  EXPECT_EQ(waiting.get(), 0U);
  service->wait();
  ASSERT_TRUE(sleeps().wait([](int count) { return count >= 2; }));
  EXPECT_EQ(proxy.GetVmIdString(1), "");
  EXPECT_EQ(deaths[1].get(), 0);  // told once the service is back
  service = startService();
  ASSERT_TRUE(deaths[1].wait([](int n) { return n == 1; }));
  ASSERT_TRUE(deaths[2].wait([](int n) { return n == 1; }));
  EXPECT_EQ(deaths[0].get(), 0);

  const auto devices = proxy.GetDeviceList("office-1");
  EXPECT_FALSE(devices.empty());
  freeList(devices);
}

TEST(AProxy, FindsItsWayBackWhenTheBusReturns) {
  auto service = startService();
  PerixProxy& proxy = *PerixProxy::getInstance();
  Watched<int> deaths;
  proxy.RegisterCallback("office-1", countDeath, &deaths);
  testBus().kill();
  if (usesDirectLines()) {
    EXPECT_EQ(proxy.GetVmIdInt("office-1"), 1U);  // a line needs no bus
    service->kill();
  } else {
    EXPECT_EQ(service->wait(), 3);
  }
  EXPECT_EQ(proxy.ConnectDevice("office-1", 1), -1);
  testBus().restart();
  service = startService();
  ASSERT_TRUE(deaths.wait([](int n) { return n == 1; }));
  EXPECT_EQ(proxy.GetVmIdInt("office-1"), 1U);
}

TEST(AProxy, SurvivesManyDeathsUnderLoad) {
  auto service = startService();
  std::atomic<bool> stop = false;
  std::atomic<int> calls = 0;
  const auto load = [&](auto operation) {
    return std::thread([&stop, &calls, operation] {
      for (; !stop; ++calls) operation(*PerixProxy::getInstance());
    });
  };
  std::thread loads[] = {
      load([](PerixProxy& proxy) { freeList(proxy.GetDeviceList("office-1")); }),
      load([](PerixProxy& proxy) { proxy.OnFocusChanged("lab-2", 1, 1); }),
      load([](PerixProxy& proxy) { proxy.SetBwInfo("lab-2", 1, 1); }),
  };
  Watched<int> deaths;
  int descriptors = 0;
  long resident = 0;
  for (int round = 1; round <= kDeaths; ++round) {
    PerixProxy::getInstance()->RegisterCallback("office-1", countDeath, &deaths);
    awaitConnection();
    if (round == kDeaths / 4) {
      descriptors = openDescriptors();
      resident = residentKib();
    }
    service->kill();
    service = startService();
    ASSERT_TRUE(deaths.wait([&](int n) { return n >= round; }));
    ASSERT_EQ(deaths.get(), round);
  }
  awaitConnection();
  EXPECT_LE(openDescriptors(), descriptors + 4);  // the load opens some for a moment
  EXPECT_LT(residentKib() - resident, 16 * 1024);
  stop = true;
  for (std::thread& one : loads) one.join();
  EXPECT_GT(calls, kDeaths);
}

}  // namespace
}  // namespace zq
