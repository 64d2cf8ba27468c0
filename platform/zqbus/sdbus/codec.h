// ZQBusMessage to D-Bus message and back.
//
// Arguments are top-level D-Bus arguments: q, i, x, s, ay. A signature holds at most 254
// characters, so the blocks at the end of a longer list (the records of a list reply) travel as one
// `aay` behind the other arguments; a long list of anything else travels as one `av`. Readers take
// all three forms, whatever the length. A text that a D-Bus string cannot carry (not UTF-8, or
// holding NUL) travels as `(ay)` and is read back as a text.
//
// Both functions are used under the mutex of the connection that the D-Bus message belongs to.
#pragma once

#include <systemd/sd-bus.h>

#include "zqbus/message.h"

namespace zq {

/// Appends the arguments of `from` to `to`. 0, or a negative error number: -EMSGSIZE when they
/// exceed the limits of D-Bus; `to` is unusable then.
[[nodiscard]] int encodeArguments(const ZQBusMessage& from, sd_bus_message* to);

/// Appends the arguments of `from` to `to`. Arguments of other D-Bus types are read as the nearest
/// of our types (u as int32, o as string), or as `std::monostate`. 0, or a negative error number
/// when the message cannot be read to its end, holds a descriptor, or has more than 1048576
/// arguments; `to` then holds the arguments before.
///
/// `to` takes at most 12 times as much memory as `from` on the wire, and 4 KiB; 32 times during the
/// decoding.
[[nodiscard]] int decodeArguments(sd_bus_message* from, ZQBusMessage& to) noexcept;

}  // namespace zq
