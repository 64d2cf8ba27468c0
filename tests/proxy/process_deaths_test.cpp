// Deaths of the service's process and of the bus, on a real bus.

#include <thread>

#include "perix/test_service.h"
#include "testing/control_client.h"
#include "tests/proxy/callbacks.h"
#include "tests/support/bus_world.h"
#include "tests/support/sleeps.h"

namespace zq {
namespace {

constexpr int kDeaths = kSanitized ? 30 : 60;

/// Waits until the proxy is connected again; what asks without a connection fails at once.
void awaitConnection() {
  while (PerixProxy::getInstance()->GetVmList().empty()) std::this_thread::yield();
}

TEST(Proxy, ConnectsAgainWhenBusReturns) {
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
  ASSERT_TRUE(deaths.waitFor(1));
  EXPECT_EQ(proxy.GetVmIdInt("office-1"), 1U);
}

TEST(Proxy, HasBusStartServiceAlsoAfterDeath) {
  letBusStart(PERIX_DEVSERVICE);
  PerixProxy& proxy = *PerixProxy::getInstance();
  EXPECT_EQ(proxy.GetVmIdInt("office-1"), 1U);
  Watched<int> deaths;
  proxy.RegisterCallback("office-1", countDeath, &deaths);
  EXPECT_THROW(askControl("crash"), PerixTestError);
  ASSERT_TRUE(deaths.waitFor(1));
  EXPECT_EQ(sleeps().get(), 0) << "the first check starts it";
  EXPECT_EQ(proxy.GetVmIdInt("office-1"), 1U);
}

TEST(Proxy, TakesBrokenConnectionForDeath) {
  const auto service = startService();
  PerixProxy& proxy = *PerixProxy::getInstance();
  for (const char* kind : {"garbage", "truncate"}) {
    for (const int64_t length : {0, 1, 15, 16, 40, 95}) {
      awaitConnection();
      askControl("setFault", message(std::string("doPerixTest"), std::string(kind), length, 1));
      EXPECT_EQ(proxy.DoPerixTest("loopback"), -1);
      EXPECT_EQ(PerixLastFailure().failure, PerixFailure::Died) << kind << ' ' << length;
    }
  }
  awaitConnection();
  EXPECT_EQ(askControl("listFaults"), "[]");
}

TEST(Proxy, SurvivesManyDeathsUnderLoad) {
  auto service = startService();
  std::atomic<bool> stop = false;
  std::atomic<int> calls = 0;
  const auto load = [&](auto operation) {
    return std::thread([&stop, &calls, operation] {
      for (; !stop; ++calls) operation(*PerixProxy::getInstance());
    });
  };
  std::thread loads[] = {
      load([](PerixProxy& proxy) { proxy.FreeDeviceList(proxy.GetDeviceList("office-1")); }),
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
