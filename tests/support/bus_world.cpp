#include "bus_world.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/open_bus.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

class World : public testing::Environment {
 public:
  void SetUp() override {
    bus = std::make_unique<PrivateBus>(busDaemon());
    ::setenv("ZQBUS_ADDRESS", bus->address().c_str(), 1);
  }
  void TearDown() override { bus.reset(); }

  std::unique_ptr<PrivateBus> bus;
};

auto* const world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

}  // namespace

PrivateBus& testBus() {
  return *world->bus;
}

bool usesDirectLines() {
  const char* wish = std::getenv("ZQBUS_DIRECT");
  return wish == nullptr || std::string(wish) != "0";
}

void letBusStart(const std::string& program) {
  std::ofstream(testBus().directory() / "services" / "org.zqbus.perix.service")
      << "[D-BUS Service]\nName=org.zqbus.perix\nExec=" << program << "\n";
}

std::unique_ptr<ChildProcess> startService(const std::vector<std::string>& arguments) {
  return startDevelopmentService(testBus().address(), PERIX_DEVSERVICE, arguments);
}

}  // namespace zq
