// How long a thread may wait for the bus: the default, and the limits of its ZQBusTimeLimit
// objects.
#pragma once

#include <chrono>

namespace zq {

/// The time-out that -1 stands for.
inline constexpr std::chrono::seconds kDefaultTimeout{25};

/// The end of a time from now on; a year at most, since no clock reaches the end of longer ones.
std::chrono::steady_clock::time_point endOf(std::chrono::milliseconds length);

/// The earlier of `deadline` and the end of this thread's time limit.
std::chrono::steady_clock::time_point withinTimeLimit(
    std::chrono::steady_clock::time_point deadline);

}  // namespace zq
