#include "bench/load/figures.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace zq::load {

Figures::Figures(const std::string& file, std::size_t row) {
  const int descriptor = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  const std::size_t size = (row + 1) * kColumns * sizeof(int64_t);
  void* const all = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  ::close(descriptor);
  if (all == MAP_FAILED) throw std::runtime_error("cannot map " + file);
  row_ = static_cast<std::atomic<int64_t>*>(all) + row * kColumns;
}

int64_t nanosecondsNow() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

}  // namespace zq::load
