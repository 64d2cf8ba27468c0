// ZQBusMessage to D-Bus message and back.
//
// Arguments are top-level D-Bus arguments: q, i, x, s, ay. A signature holds at most 254
// characters, so the blocks at the end of a longer list (the records of a list reply) travel as one
// `aay` behind the other arguments; a long list of anything else travels as one `av`. Readers take
// all three, whatever the length. A text that a D-Bus string cannot carry (not
// UTF-8, or holding NUL) travels as `(ay)`. Both are read back as what they were.
//
// All of this needs the lock of the connection that the D-Bus message belongs to.
#pragma once

#include <systemd/sd-bus.h>

#include "zqbus/message.h"

namespace zq {

/// Appends the arguments of `from` to `to`. 0, or a negative error number: -EMSGSIZE when they are
/// more than D-Bus carries; `to` is then of no further use.
[[nodiscard]] int encodeArguments(const ZQBusMessage& from, sd_bus_message* to);

/// Appends the arguments of `from` to `to`. Arguments of other D-Bus types are read as the nearest
/// of ours (u as int32, o as string), or as `std::monostate` where there is none. 0, or a negative
/// error number when the message cannot be read to its end; `to` then holds what came before. So
/// it is with descriptors, which no argument carries, and beyond 1048576 arguments.
///
/// What `to` takes in memory is at most 12 times the size of `from` on the wire and 4 KiB; while it
/// is decoded, 32 times.
[[nodiscard]] int decodeArguments(sd_bus_message* from, ZQBusMessage& to) noexcept;

}  // namespace zq
