// Running out of descriptors, and not being ended by it.
//
// The message that brings a descriptor for which the process has no room any more costs the
// connection that it came on. So the service keeps room for what a message may bring, and
// descriptors of its own to come back with.
#pragma once

#include <array>

namespace zq {

/// Whether the process may still open as many descriptors as one message brings at most, or a
/// quarter of all when it may have few.
bool hasSpareDescriptors();

/// Descriptors that are there to be given up when they are needed. One thread at a time.
class DescriptorReserve {
 public:
  DescriptorReserve() { refill(); }
  ~DescriptorReserve() { release(); }
  DescriptorReserve(const DescriptorReserve&) = delete;
  DescriptorReserve& operator=(const DescriptorReserve&) = delete;

  void release();
  /// Takes what there is.
  void refill();

 private:
  std::array<int, 8> kept_{-1, -1, -1, -1, -1, -1, -1, -1};
};

}  // namespace zq
