#include "tests/bus/hostile_memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t kTooMuch = std::size_t{1} << 30;

std::atomic<std::size_t> live = 0;
std::atomic<std::size_t> peak = 0;

void note(std::size_t size) {
  const std::size_t now = live.fetch_add(size) + size;
  std::size_t most = peak;
  while (most < now && !peak.compare_exchange_weak(most, now)) {
  }
  if (now < kTooMuch) return;
  std::fputs("more than 1 GiB is allocated\n", stderr);
  std::abort();
}

}  // namespace

void* operator new(std::size_t size) {
  void* const block = std::malloc(size > 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  note(::malloc_usable_size(block));
  return block;
}

void operator delete(void* block) noexcept {
  live -= ::malloc_usable_size(block);
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace zq {

std::size_t liveBytes() {
  return live;
}

std::size_t peakBytes() {
  return peak;
}

void resetPeak() {
  peak = live.load();
}

}  // namespace zq
