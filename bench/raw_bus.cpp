#include "bench/raw_bus.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/bench_service.h"

namespace zq::bench {
namespace {

constexpr char kName[] = "org.zqbus.perix";
constexpr char kPath[] = "/org/zqbus/perix";
constexpr uint16_t kDevice = 7;

void require(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

}  // namespace

RawBus openRawBus() {
  sd_bus* opened = nullptr;
  require(sd_bus_new(&opened), "sd_bus_new");
  RawBus bus(opened);
  require(sd_bus_set_address(opened, std::getenv("ZQBUS_ADDRESS")), "sd_bus_set_address");
  require(sd_bus_set_bus_client(opened, 1), "sd_bus_set_bus_client");
  require(sd_bus_start(opened), "sd_bus_start");
  return bus;
}

void askRawOwner(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "GetNameOwner", nullptr, &reply, "s", kName);
  const RawMessage owned(reply);
  require(result, "GetNameOwner");
}

void connectDeviceRaw(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(bus, kName, kPath, kName, "connectDevice", nullptr, &reply,
                                        "iq", kDesktopId, kDevice);
  const RawMessage owned(reply);
  require(result, "connectDevice");
  int32_t status = -1;
  require(sd_bus_message_read_basic(reply, 'i', &status), "connectDevice's result");
}

RawMessage getDeviceListRaw(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(bus, kName, kPath, kName, "getDeviceList", nullptr, &reply,
                                        "i", kDesktopId);
  RawMessage owned(reply);
  require(result, "getDeviceList");
  return owned;
}

}  // namespace zq::bench
