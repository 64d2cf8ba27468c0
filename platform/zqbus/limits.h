// How much a message of the bus may hold, whatever carries it.
#pragma once

#include <cstddef>

namespace zq {

/// The bytes of one argument, and of a message with all that is around its arguments.
inline constexpr std::size_t kMaxContent = std::size_t{64} << 20;
inline constexpr std::size_t kMaxMessage = std::size_t{128} << 20;
/// The arguments that are read. Elements of a list take ten times as much memory as the least of
/// them take on the wire.
inline constexpr std::size_t kMaxArguments = std::size_t{1} << 20;

}  // namespace zq
