// The USB devices of the machine that the service runs on.
#pragma once

#include <vector>

#include "service/model/model.h"

namespace zq::devservice {

/// The machine's USB devices, hubs left out, as the kernel lists them now. Empty when there are
/// none or no device manager can be asked. Their numbers and source ids are 0.
std::vector<Device> hostDevices();

}  // namespace zq::devservice
