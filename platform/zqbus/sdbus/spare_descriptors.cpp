#include "spare_descriptors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace zq {
namespace {

// The kernel passes 253 at once.
constexpr rlim_t kWanted = 256;
// The lines that are being opened take some for a while.
constexpr rlim_t kWantedForLine = 64;
constexpr int kAtOnce = 1024;

/// How many of the numbers from `first` to before `end` are free.
rlim_t freeOf(int first, int end) {
  std::array<pollfd, kAtOnce> all{};
  const auto count = static_cast<std::size_t>(end - first);
  for (std::size_t i = 0; i < count; ++i) all[i].fd = first + static_cast<int>(i);
  // A poll says of each number at once whether it is open.
  if (::poll(all.data(), count, 0) < 0) return 0;
  return static_cast<rlim_t>(
      std::count_if(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count),
                    [](const pollfd& one) { return (one.revents & POLLNVAL) != 0; }));
}

rlim_t descriptorLimit() {
  rlimit limit{};
  return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

bool hasFree(rlim_t wanted, rlim_t limit) {
  const int end = static_cast<int>(std::min<rlim_t>(limit, 1 << 20));
  rlim_t found = 0;
  for (int first = 0; first < end && found < wanted; first += kAtOnce) {
    found += freeOf(first, std::min(first + kAtOnce, end));
  }
  return found >= wanted;
}

rlim_t spareForMessage(rlim_t limit) {
  return std::min(kWanted, limit / 4);
}

}  // namespace

bool hasSpareDescriptors() {
  const rlim_t limit = descriptorLimit();
  return limit > 0 && hasFree(spareForMessage(limit), limit);
}

bool hasSpareDescriptorsForLine() {
  const rlim_t limit = descriptorLimit();
  return limit > 0 && hasFree(spareForMessage(limit) + std::min(kWantedForLine, limit / 8), limit);
}

void DescriptorReserve::release() {
  for (int& descriptor : kept_) {
    if (descriptor >= 0) ::close(std::exchange(descriptor, -1));
  }
}

void DescriptorReserve::refill() {
  for (int& descriptor : kept_) {
    if (descriptor < 0) descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
}

}  // namespace zq
