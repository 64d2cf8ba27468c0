// Local printers from a CUPS server, where the service is built with CUPS.
#pragma once

#include <string>

#include "service/bus/dev_service.h"

namespace zq::devservice {

/// Puts the server's printers in place of the scenario's local ones, and has the server look after
/// them. `server` is a host, host:port or the path of a socket; empty for the one that CUPS_SERVER
/// or the machine's configuration names. Blocks until the server answered. False, with the reason
/// in `error` and `options` as they were, when it cannot be reached or there is no CUPS in this
/// build.
[[nodiscard]] bool useCups(const std::string& server, DevService::Options& options,
                           std::string& error);

}  // namespace zq::devservice
