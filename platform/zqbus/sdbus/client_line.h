// The direct line: a connection to a service that does not go through the bus.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "client_connection.h"

namespace zq {

struct DirectLine {
  std::shared_ptr<ClientConnection> connection;  ///< null without a line
  pid_t process = 0;                             ///< at the other end
};

/// Opens a direct line to the owner of `service`: hands it one end of a socket pair in a call
/// through the bus, which vouches for both, and takes the line from the other end. Blocks while it
/// connects and for a round trip to the service, 3 s at most. Without a line when the service
/// offers none, does not answer, or ZQBUS_DIRECT is 0; the service is used through the bus then.
/// `deliveries` outlives the line.
DirectLine openDirectLine(const std::string& service, const std::string& owner,
                          DeliveryQueue& deliveries);

}  // namespace zq
