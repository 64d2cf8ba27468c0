// Messages in a word.
#pragma once

#include <string>

#include "zqbus/message.h"

namespace zq {

/// A message with these arguments.
template <typename... Arguments>
ZQBusMessage message(Arguments... arguments) {
  ZQBusMessage made;
  (made.append(std::move(arguments)), ...);
  return made;
}

inline ZQBusArgument bytes(const std::string& content) {
  return ZQBusBytes::copyOf(content.data(), static_cast<uint32_t>(content.size()));
}

}  // namespace zq
