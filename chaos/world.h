// A private bus with the development service on it, for one process of the matrix.
#pragma once

#include <memory>
#include <string>

#include "chaos/cell.h"
#include "tools/embedded/private_bus.h"
#include "zqbus/message.h"

namespace zq::chaos {

class World {
 public:
  /// Sets ZQBUS_ADDRESS and ZQBUS_DIRECT for this process, and a directory for its log.
  explicit World(const Setting& setting);

  /// Calls a method of the control interface; the document that it answers. Throws
  /// std::runtime_error when that fails.
  static std::string control(const std::string& method, const ZQBusMessage& arguments = {});

  /// Connects this process, and has an event and a broadcast delivered to it: a connection has all
  /// its threads from its first delivery on.
  static void warmUp();
  /// Ends the faults, starts the service again when it `crashes`, and waits until the service owns
  /// its name. Says what went wrong; empty when nothing.
  std::string mend(bool crashes);

 private:
  void start();

  PrivateBus bus_;
  std::unique_ptr<ChildProcess> service_;
};

}  // namespace zq::chaos
