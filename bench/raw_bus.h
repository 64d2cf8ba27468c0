// The same service by sd-bus alone: one connection, one thread, blocking calls.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace zq::bench {

struct SdBusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using RawBus = std::unique_ptr<sd_bus, SdBusUnref>;
using RawMessage = std::unique_ptr<sd_bus_message, SdBusUnref>;

// All of these throw std::runtime_error when sd-bus or the service refuses, so that no failure is
// ever measured as a fast answer.

/// Opens a connection to the bus of ZQBUS_ADDRESS.
RawBus openRawBus();
/// Asks the bus for the owner of the service's name.
void askRawOwner(sd_bus* bus);
/// "connectDevice" as the proxy makes it, its result read.
void connectDeviceRaw(sd_bus* bus);
/// "getDeviceList" as the proxy makes it: the reply as it was received, not decoded.
RawMessage getDeviceListRaw(sd_bus* bus);

}  // namespace zq::bench
