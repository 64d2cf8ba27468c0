// Messages in a word.
#pragma once

#include <cstdlib>
#include <string>

#include "zqbus/message.h"

namespace zq {

template <typename... Arguments>
ZQBusMessage message(Arguments... arguments) {
  ZQBusMessage made;
  (made.append(std::move(arguments)), ...);
  return made;
}

inline ZQBusArgument bytes(const std::string& content) {
  return ZQBusBytes::copyOf(content.data(), static_cast<uint32_t>(content.size()));
}

/// The number at the end of a desktop's name ("desk-3"), 0 without one.
inline int numberAtEnd(const std::string& name) {
  const auto dash = name.rfind('-');
  return dash == std::string::npos ? 0 : std::atoi(name.c_str() + dash + 1);
}

}  // namespace zq
