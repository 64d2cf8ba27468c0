// Bytes as hexadecimal digits, two each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zq {

/// The bytes in small hexadecimal digits.
std::string inHex(std::string_view bytes);

/// The bytes that the digits stand for; nothing when there is anything else in `text`, or half a
/// byte.
std::optional<std::vector<uint8_t>> fromHex(std::string_view text);

}  // namespace zq
