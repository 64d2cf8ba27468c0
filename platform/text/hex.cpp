#include "platform/text/hex.h"

#include <charconv>

namespace zq {

std::string inHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const char character : bytes) {
    const auto byte = static_cast<uint8_t>(character);
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

std::optional<std::vector<uint8_t>> fromHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<uint8_t> bytes;
  for (; !text.empty(); text.remove_prefix(2)) {
    uint8_t byte = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + 2, byte, 16);
    if (error != std::errc{} || stop != text.data() + 2) return std::nullopt;
    bytes.push_back(byte);
  }
  return bytes;
}

}  // namespace zq
