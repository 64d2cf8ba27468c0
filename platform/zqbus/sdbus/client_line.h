// The client's side of a direct line: a connection to a service that bypasses the bus.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "client_connection.h"

namespace zq {

struct DirectLine {
  std::shared_ptr<ClientConnection> connection;  ///< null without a line
  pid_t process = 0;                             ///< the service's
  bool isRefused = false;  ///< the service has lines, but none for this client
};

/// Opens a direct line to the owner of `service`: passes it the handover socket in a call through
/// the bus, which vouches for both processes, and receives the line on that socket. Blocks while it
/// connects and for a round trip to the service, 3 s at most. `connection` is null when the service
/// offers no lines or does not answer, and when ZQBUS_DIRECT is 0; use the bus then. `deliveries`
/// outlives the line.
DirectLine openDirectLine(const std::string& service, const std::string& owner,
                          DeliveryQueue& deliveries);

}  // namespace zq
