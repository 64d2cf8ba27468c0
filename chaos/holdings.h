// The descriptors, threads and memory of this process.
#pragma once

#include <string>

namespace zq::chaos {

struct Holdings {
  int descriptors = 0;
  int threads = 0;
  long residentKib = 0;
};

/// The increase that is allowed.
inline constexpr Holdings kAllowance = {0, 0, 8 * 1024};

Holdings currentHoldings();

/// Waits until this process holds no more than `first` and the allowance, at most 10 s: threads
/// that have ended their work still have to end. Says what it holds then beyond that; empty when
/// nothing.
std::string excessOver(const Holdings& first);

}  // namespace zq::chaos
