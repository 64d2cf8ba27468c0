// What is kept of a call for its answer.
#pragma once

#include "sd_bus_handles.h"

namespace zq {

/// A call without arguments, whose answer is the answer of `call`. It stands in for a call that is
/// answered later: that holds the whole of its content, and as many descriptors as came with it.
/// Null without memory for it.
SdBusMessage stubOf(sd_bus_message* call);

}  // namespace zq
