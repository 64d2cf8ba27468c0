// The limits of a message, the same for every carrier.
#pragma once

#include <cstddef>

namespace zq {

/// In bytes: one argument, and a whole message with its headers.
inline constexpr std::size_t kMaxContent = std::size_t{64} << 20;
inline constexpr std::size_t kMaxMessage = std::size_t{128} << 20;
/// The number of arguments. The smallest element of a list takes ten times as much memory as it
/// takes on the wire.
inline constexpr std::size_t kMaxArguments = std::size_t{1} << 20;

}  // namespace zq
