#include "chaos/holdings.h"

#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

#include "tests/support/process.h"

namespace zq::chaos {
namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr std::chrono::milliseconds kBetweenLooks{20};

std::string excess(const char* noun, long held, long first, long allowance) {
  if (held <= first + allowance) return {};
  return std::to_string(held) + " " + noun + ", " + std::to_string(first) + " at first; ";
}

std::string excess(const Holdings& held, const Holdings& first) {
  return excess("descriptors", held.descriptors, first.descriptors, kAllowance.descriptors) +
         excess("threads", held.threads, first.threads, kAllowance.threads) +
         excess("KiB of memory", held.residentKib, first.residentKib, kAllowance.residentKib);
}

}  // namespace

Holdings currentHoldings() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return {openDescriptors(), static_cast<int>(std::distance(begin(tasks), end(tasks))),
          residentKib()};
}

std::string excessOver(const Holdings& first) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::string text = excess(currentHoldings(), first);
  while (!text.empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kBetweenLooks);
    text = excess(currentHoldings(), first);
  }
  return text;
}

}  // namespace zq::chaos
