// What the tests of a real bus stand on: a private bus for this process, and services on it.
#pragma once

#include "tests/support/process.h"
#include "tests/support/recording_service.h"
#include "tools/embedded/private_bus.h"

namespace zq {

/// The bus of this process, up from the first test to the last; ZQBUS_ADDRESS names it.
PrivateBus& testBus();
/// Whether services are reached over direct lines; ZQBUS_DIRECT says so.
bool usesDirectLines();

/// The development service in a process of its own; `arguments` follow those of its start.
std::unique_ptr<ChildProcess> startService(const std::vector<std::string>& arguments = {});
/// From now on, the bus starts that program for "perix" when it is asked to.
void letBusStart(const std::string& program);

}  // namespace zq
