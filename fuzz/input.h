// Messages out of a fuzzer's bytes, and what a target does when something does not hold.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

#include "zqbus/message.h"

namespace zq::fuzz {

/// Ends the process and says where, which the fuzzer reports together with the input.
inline void require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: this does not hold\n", file, line);
  std::abort();
}

/// An argument of any type, std::monostate among them when `evenUncarried`.
ZQBusArgument anyArgument(FuzzedDataProvider& input, bool evenUncarried);

/// A block of 0 to `most` bytes.
ZQBusBytes anyBytes(FuzzedDataProvider& input, std::size_t most);

/// A reply as a faulty service might send it to who expects a list: a number, and then blocks for
/// the most part.
ZQBusMessage anyListReply(FuzzedDataProvider& input);

}  // namespace zq::fuzz
