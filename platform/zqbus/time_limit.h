// The end of what a thread may wait for the bus, as its ZQBusTimeLimit objects set it.
#pragma once

#include <chrono>

namespace zq {

/// The earlier of `deadline` and the end of this thread's time limit.
std::chrono::steady_clock::time_point withinTimeLimit(
    std::chrono::steady_clock::time_point deadline);

}  // namespace zq
