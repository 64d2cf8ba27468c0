#include "time_limit.h"

#include <algorithm>
#include <utility>

#include "zqbus/zqbus.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;

thread_local Clock::time_point limit = Clock::time_point::max();

}  // namespace

ZQBusTimeLimit::ZQBusTimeLimit(std::chrono::milliseconds length)
    : outer_(std::exchange(limit, withinTimeLimit(endOf(length)))) {}

ZQBusTimeLimit::~ZQBusTimeLimit() {
  limit = outer_;
}

Clock::time_point endOf(std::chrono::milliseconds length) {
  return Clock::now() + std::min(length, std::chrono::milliseconds(std::chrono::hours(24 * 365)));
}

Clock::time_point withinTimeLimit(Clock::time_point deadline) {
  return std::min(deadline, limit);
}

}  // namespace zq
