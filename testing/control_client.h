// A client of the development service's control interface.
#pragma once

#include <chrono>
#include <string>

#include "zqbus/message.h"

namespace zq {

/// Calls a method of the control interface; the JSON document that it answers. Throws
/// PerixTestError in the service's words, or in those of the bus.
std::string askControl(const std::string& method, const ZQBusMessage& arguments = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace zq
