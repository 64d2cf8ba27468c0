#include "ipv4_address.h"

#include <arpa/inet.h>

#include <cstdlib>

namespace zq {
namespace {

constexpr long kMaxPort = 65535;

/// inet_pton takes exactly four decimal numbers, each without leading zeros.
bool isHost(const std::string& text) {
  in_addr address{};
  return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool isPort(const std::string& text) {
  const long port = std::strtol(text.c_str(), nullptr, 10);
  return port >= 0 && port <= kMaxPort;
}

}  // namespace

bool isIpv4Endpoint(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return isHost(text);
  return isPort(text.substr(colon + 1)) && isHost(text.substr(0, colon));
}

}  // namespace zq
