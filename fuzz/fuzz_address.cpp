// The address check beside another reading of the same rule: numbers are read as far as their
// digits go, written back, and must give the text again.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "perix/apps/local/perixproxy/ipv4_address.h"

namespace zq::fuzz {
namespace {

constexpr long kTooLarge = 1'000'000;

/// The number at the start of the text: blanks, a sign, digits; 0 without digits.
long leadingNumber(const std::string& text) {
  std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
  if (at == std::string::npos) return 0;
  const bool negative = text[at] == '-';
  if (negative || text[at] == '+') ++at;
  long value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = std::min(value * 10 + (text[at] - '0'), kTooLarge);
  }
  return negative ? -value : value;
}

bool isHost(const std::string& host) {
  std::string writtenBack;
  std::size_t begin = 0;
  int parts = 0;
  while (begin != std::string::npos) {
    const std::size_t dot = host.find('.', begin);
    const long number = leadingNumber(host.substr(begin, dot - begin));
    if (number < 0 || number > 255) return false;
    writtenBack += (parts++ > 0 ? "." : "") + std::to_string(number);
    begin = dot == std::string::npos ? dot : dot + 1;
  }
  return parts == 4 && writtenBack == host;
}

bool isEndpoint(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return isHost(text);
  const long port = leadingNumber(text.substr(colon + 1));
  return port >= 0 && port <= 65535 && isHost(text.substr(0, colon));
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  zq::fuzz::require(zq::isIpv4Endpoint(text) == zq::fuzz::isEndpoint(text));
  return 0;
}
