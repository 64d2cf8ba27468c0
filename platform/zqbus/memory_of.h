// The memory of a message.
#pragma once

#include <cstddef>

#include "zqbus/message.h"

namespace zq {

/// The bytes of an argument itself, without its record.
std::size_t contentSize(const ZQBusArgument& argument);

/// The memory of a message, closely enough to limit a queue.
std::size_t memoryOf(const ZQBusMessage& message);

}  // namespace zq
