// What this process has allocated with operator new, which this program replaces.
#pragma once

#include <cstddef>

namespace zq {

/// Bytes that are allocated now, and the most since the last resetPeak(). The process ends when it
/// comes to hold a gibibyte: whatever fills the memory would not stop there.
std::size_t liveBytes();
std::size_t peakBytes();
void resetPeak();

}  // namespace zq
