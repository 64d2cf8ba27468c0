#include "chaos/world.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "perix/events.h"
#include "perix/perix_proxy.h"
#include "testing/control_client.h"
#include "tests/support/messages.h"
#include "tests/support/watched.h"
#include "zqbus/zqbus.h"

namespace zq::chaos {
namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr std::chrono::milliseconds kBetweenLooks{10};

/// A service that has lost the bus comes back by itself, after pauses that grow to 5 s.
bool isOnBusInTime() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
    if (manager != nullptr && manager->isServiceRegistered("perix")) return true;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return false;
}

int countEvent(uint16_t, _ConfigNewDeviceResult*, void* heard) {
  static_cast<Watched<int>*>(heard)->change([](int& events) { ++events; });
  return 0;
}

}  // namespace

World::World(const Setting& setting)
    : bus_(setting.broker == "dbus-broker" ? PERIX_DBUS_BROKER : "dbus-daemon") {
  ::setenv("ZQBUS_ADDRESS", bus_.address().c_str(), 1);
  ::setenv("ZQBUS_DIRECT", setting.way == "direct" ? "1" : "0", 1);
  ::setenv("XDG_STATE_HOME", (bus_.directory() / "state").c_str(), 1);
  start();
}

void World::start() {
  service_ = startDevelopmentService(bus_.address(), PERIX_DEVSERVICE,
                                     {"--scenario", PERIX_CHAOS_SCENARIO});
}

std::string World::control(const std::string& method, const ZQBusMessage& arguments) {
  return askControl(method, arguments);
}

void World::warmUp() {
  Watched<int> heard;
  PerixProxy& proxy = *PerixProxy::getInstance();
  proxy.RegisterConfigNewDevResultCallback(&countEvent, &heard);
  const ZQBusMessage event = message(int32_t{0}, static_cast<int32_t>(EventKind::JoystickEnd),
                                     bytes(std::string(64, ' ')));
  control("sendEvent", event);
  control("sendBroadcast", event);
  if (!heard.wait([](int events) { return events == 2; })) throw std::runtime_error("no events");
  proxy.UnregisterConfigNewDevResultCallback();
}

std::string World::mend(bool crashes) {
  if (crashes) {
    service_->wait();
    start();
  } else if (service_->running()) {
    control("clearFaults");
  } else {
    return "the service has ended: " + service_->errorText();
  }
  return isOnBusInTime() ? "" : "the service is not on the bus again";
}

}  // namespace zq::chaos
