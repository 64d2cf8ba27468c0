#include "platform/util/fork_generation.h"

#include <pthread.h>

#include <atomic>

namespace zq {
namespace {

std::atomic<int> generation = 0;

[[maybe_unused]] const int registered =
    ::pthread_atfork(nullptr, nullptr, [] { generation.fetch_add(1, std::memory_order_relaxed); });

}  // namespace

int forkGeneration() {
  return generation.load(std::memory_order_relaxed);
}

}  // namespace zq
