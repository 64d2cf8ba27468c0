// A client of the development service's control interface.
#pragma once

#include <chrono>
#include <string>

#include "zqbus/message.h"

namespace zq {

/// Calls a method of the control interface; the JSON document that it answers. Blocks for at most
/// `timeout` in all, which counts from 1 ms to 24 days. Throws PerixTestError in the service's
/// words, or in those of the bus.
std::string askControl(const std::string& method, const ZQBusMessage& arguments = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

/// Whether both of the service's names have owners; false after 10 s without an answer of the bus.
bool isServiceOnBus();

}  // namespace zq
