// The memory of a message.
#pragma once

#include <cstddef>

#include "zqbus/message.h"

namespace zq {

/// The bytes of an argument itself, without its record.
std::size_t contentSize(const ZQBusArgument& argument);

/// The memory that a message takes, closely enough to bound what is queued.
std::size_t memoryOf(const ZQBusMessage& message);

}  // namespace zq
