#include "service/bus/json.h"

namespace zq::devservice {

std::string asText(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string inHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<uint8_t>(c);
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

}  // namespace zq::devservice
