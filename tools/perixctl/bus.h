// The bus itself, as far as the tool needs more of it than the public interface of the service: its
// source file is the tool's only file that speaks to the bus directly.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tools/perixctl/outcome.h"
#include "zqbus/inspection.h"
#include "zqbus/message.h"

namespace zq::ctl {

/// Whether the bus can be reached now; connects to it when necessary. Blocks for at most 1 s.
bool busIsThere();

/// Whether a process owns the name of the peripheral service, and of the control interface of the
/// development service. Neither starts a service.
bool serviceIsThere();
bool controlIsThere();

using ControlArgument = std::variant<uint16_t, int32_t, int64_t, std::string, std::vector<uint8_t>>;
using ControlArguments = std::vector<ControlArgument>;

/// A look at the bus and at the service on it. Blocks for at most 3 s.
ZQBusInspection inspectBus();
/// The way that calls of the service take now. Asks the service for a line, so it blocks for a
/// few seconds when that hangs. Nothing when there is no service of this user or of root.
std::optional<ZQBusWay> wayToService();

/// Calls `method` of the control interface and returns its answer. Throws CommandError (NoService)
/// when there is no such interface, and the error of refusalInWords when the service refuses.
Json askControl(const char* method, const ControlArguments& arguments);

/// The methods whose calls the development service can let go wrong.
std::vector<std::string> faultMethodNames();

/// As askControl, for a method that the service does not survive: returns when it is gone.
void killService();

}  // namespace zq::ctl
