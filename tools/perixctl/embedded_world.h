// A bus and a development service for the run of one command.
#pragma once

#include <memory>
#include <string>

#include "tools/embedded/private_bus.h"

namespace zq::ctl {

/// Both run for as long as the object lives, and this process's ZQBUS_ADDRESS names the bus.
class EmbeddedWorld {
 public:
  /// Starts them; the service is the one beside this program, else the one in PATH. `scenario` is
  /// empty for the service's default. Throws CommandError when either does not come up.
  explicit EmbeddedWorld(const std::string& scenario);

 private:
  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<ChildProcess> service_;
};

}  // namespace zq::ctl
