// The bus itself, as far as the tool needs more of it than the public interface of the service: its
// source file is the tool's only file that speaks to the bus directly.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "tools/perixctl/outcome.h"

namespace zq::ctl {

/// Whether the bus can be reached now; connects to it when necessary. Blocks for at most 1 s.
bool busIsThere();

/// Whether a process owns the name of the peripheral service, and of the control interface of the
/// development service. Neither starts a service.
bool serviceIsThere();
bool controlIsThere();

using ControlArgument = std::variant<uint16_t, int32_t, int64_t, std::string, std::vector<uint8_t>>;
using ControlArguments = std::vector<ControlArgument>;

/// Calls `method` of the control interface and returns its answer. Throws CommandError (NoService)
/// when there is no such interface, and the error of refusalInWords when the service refuses.
Json askControl(const char* method, const ControlArguments& arguments);

/// The methods whose calls the development service can let go wrong.
std::vector<std::string> faultMethodNames();

/// As askControl, for a method that the service does not survive: returns when it is gone.
void killService();

}  // namespace zq::ctl
