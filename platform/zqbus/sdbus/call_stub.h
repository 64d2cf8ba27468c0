// The part of a call that its answer needs.
#pragma once

#include "sd_bus_handles.h"

namespace zq {

/// A call without arguments, whose answer is the answer of `call`. It takes the place of a call
/// that is answered later, which would keep its content and its descriptors. Null without memory.
SdBusMessage stubOf(sd_bus_message* call);

}  // namespace zq
