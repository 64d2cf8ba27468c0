// Addresses of hosts, as the shared-printer search takes them.
#pragma once

#include <string>

namespace zq {

/// Whether the text is "a.b.c.d" or "a.b.c.d:port": four decimal numbers up to 255 written without
/// leading zeros or anything else, and a port whose leading digits make at most 65535 (what follows
/// them does not count, and no digits are port 0).
bool isIpv4Endpoint(const std::string& text);

}  // namespace zq
