// A look at the bus and at the owner of a service's name, for people who search for a fault. It is
// made on a connection of its own, and starts and changes nothing.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace zq {

/// A process as the bus, or the kernel, knows it.
struct ZQBusParty {
  std::string uniqueName;  ///< on the bus; empty for the bus itself
  std::optional<int> process;
  std::optional<unsigned> user;
};

struct ZQBusInspection {
  std::string address;   ///< of the bus; empty when the environment names none
  std::string variable;  ///< of the environment, from which the address comes
  std::string problem;   ///< why the bus cannot be used, a sentence; empty when it can
  ZQBusParty bus;        ///< the process that listens at the address
  unsigned user = 0;  ///< this process's user as the bus knows it: on another machine, that there
  std::string name;   ///< of the service on the bus, as "org.zqbus.perix"
  std::optional<ZQBusParty> owner;
  bool isActivatable = false;  ///< the bus knows how to start the service
};

/// Blocks until `limit` has passed at most. Any thread, whether or not the bus is in use.
ZQBusInspection inspectZQBus(const std::string& service, std::chrono::milliseconds limit);

}  // namespace zq
