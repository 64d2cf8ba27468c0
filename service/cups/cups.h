// Local printers from a CUPS server, where the service is built with CUPS.
#pragma once

#include <string>

#include "service/model/printer_backend.h"

namespace zq::devservice {

/// Puts the printers of a CUPS server in place of the scenario's local printers, and makes
/// `backend` a factory of backends that work on that server. `server` is a host, host:port or the
/// path of a socket; when it is empty, CUPS_SERVER or the machine's configuration names the server.
/// Blocks until the server has answered. False, with the reason in `error` and the rest as it was,
/// when the server does not answer or this build has no CUPS.
[[nodiscard]] bool useCups(const std::string& server, Scenario& scenario,
                           PrinterBackendFactory& backend, std::string& error);

}  // namespace zq::devservice
