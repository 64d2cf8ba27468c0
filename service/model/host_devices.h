// The USB devices of this machine.
#pragma once

#include <vector>

#include "service/model/model.h"

namespace zq::devservice {

/// The USB devices of this machine, as the kernel lists them now, without hubs. Empty when there
/// are none or the device manager does not answer. Their numbers and source ids are 0.
std::vector<Device> hostDevices();

}  // namespace zq::devservice
