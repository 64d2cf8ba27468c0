// Message bodies that no peer of ours sends, and what becomes of them.
#pragma once

#include <iosfwd>
#include <vector>

#include "tests/support/wire_bytes.h"

namespace zq {

/// What becomes of a message once its bytes are here.
enum class Fate {
  Read,        ///< its arguments are read
  Unreadable,  ///< it is refused, and its sender or caller is told where there is an answer
  Dropped,     ///< sd-bus drops it, and nobody above hears of it
  Cut,         ///< the connection that it came on is closed
};
void PrintTo(Fate fate, std::ostream* out);

struct OddBody {
  const char* name;
  Fate fate;
  /// Whether the bus daemon passes it on. It cuts the sender of a message that is malformed.
  bool passesBus;
  std::string signature;
  wire::Writer content;
  uint32_t announcedDescriptors = 0;
  std::size_t sentDescriptors = 0;
};

const std::vector<OddBody>& oddBodies();

/// Bodies that cost few bytes on the wire and might cost many in memory.
const std::vector<OddBody>& thriftyBodies();

void setBody(wire::Message& message, const OddBody& body);

}  // namespace zq
