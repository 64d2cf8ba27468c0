// Services that the bus starts.
#include "tests/bus/bus_fixture.h"
#include "tests/support/bus_daemon.h"
#include "tests/support/bus_world.h"

namespace zq {
namespace {

struct Activation {
  const char* program;  ///< of the activation file; null for no file
  const char* setting;  ///< of ZQBUS_ACTIVATE
  const char* problem;  ///< stands in the problem; null when the service runs then
};

const Activation kActivations[] = {
    {nullptr, "1", "nobody owns org.zqbus.perix on the bus at unix:path="},
    {"/nonexistent", "1", "cannot start it: Failed to execute program"},
    {"/bin/false", "1", "cannot start it: Process org.zqbus.perix exited with status 1"},
    {PERIX_DEVSERVICE, "0", "nobody owns org.zqbus.perix"},
    {PERIX_DEVSERVICE, "1", nullptr},
};

TEST(Activation, StartsServiceOrTellsWhyNot) {
  if (usesDbusBroker()) GTEST_SKIP() << "dbus-broker leaves starting to a service manager";
  auto* const manager = ZQBusSerivceManager::initSync(-1);
  for (const auto& [program, setting, problem] : kActivations) {
    SCOPED_TRACE(program != nullptr ? program : "no file");
    ::setenv("ZQBUS_ACTIVATE", setting, 1);
    if (program != nullptr) letBusStart(program);
    EXPECT_FALSE(manager->isServiceRegistered("perix"));
    EXPECT_EQ(manager->startService("perix"), problem == nullptr);
    const std::string text = lastZQBusProblem().text;
    if (problem != nullptr) {
      EXPECT_NE(text.find(problem), std::string::npos) << text;
    }
    EXPECT_EQ(manager->isServiceRegistered("perix"), problem == nullptr);
  }
  EXPECT_NE(connect(), nullptr);
}

}  // namespace
}  // namespace zq
