// Owning pointers for the objects of sd-bus.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace zq {

struct SdBusRelease {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

// A message and a slot share a reference count with their connection that is not atomic: create,
// use and release them under the connection's mutex. A slot keeps its connection alive.
using SdBus = std::unique_ptr<sd_bus, SdBusRelease>;
using SdBusMessage = std::unique_ptr<sd_bus_message, SdBusRelease>;
using SdBusSlot = std::unique_ptr<sd_bus_slot, SdBusRelease>;

}  // namespace zq
