// The unit tests of a client, against the development service in the test's own process.
#include <gtest/gtest.h>

#include <future>

#include "perix/events.h"
#include "perix/perix_proxy.h"
#include "perix/test_service.h"

namespace {

std::promise<int> died;

int onDesktop(uint16_t code, void* /*data*/, void* /*userdata*/) {
  if (code == zq::SERVICE_DIED) died.set_value(code);
  return 0;
}

class Client : public testing::Test {
 protected:
  zq::PerixTestService service;
  zq::PerixProxy& perix = *zq::PerixProxy::getInstance();
};

TEST_F(Client, ConnectsAPluggedCamera) {
  const auto camera = service.plug("type = \"camera\"\nname = \"Desk camera\"");
  zq::VmInfo desktop{};
  desktop.vmId = "office-1";
  ASSERT_EQ(perix.ConnectVm(desktop), 0);

  EXPECT_EQ(perix.ConnectDevice("office-1", camera.number), 0);

  const auto calls = service.awaitCalls("connectDevice");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].arguments, "[1," + std::to_string(camera.number) + "]");
  EXPECT_EQ(calls[0].answer, "[0]");
}

TEST_F(Client, TellsAnErrorFromARefusal) {
  service.setFault("connectDevice", "error");
  EXPECT_EQ(perix.ConnectDevice("office-1", 1), -1);
  EXPECT_EQ(zq::PerixLastFailure().failure, zq::PerixFailure::Refused);

  EXPECT_GT(perix.ConnectDevice("office-1", 1), 0) << "the desktop has no session";
}

TEST_F(Client, HearsTheDeathOfTheService) {
  perix.RegisterCallback("office-1", onDesktop, nullptr);
  service.stop();
  service.start();
  EXPECT_EQ(died.get_future().get(), zq::SERVICE_DIED);
}

}  // namespace
