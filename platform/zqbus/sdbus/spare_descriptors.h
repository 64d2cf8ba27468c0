// How a service survives the process's limit of descriptors.
//
// A message whose descriptors exceed the limit ends the connection that it came on. So the service
// keeps room for the descriptors of one message, and a reserve with which it connects again.
#pragma once

#include <array>

namespace zq {

/// Whether the process may still open as many descriptors as one message can carry, or a quarter of
/// its limit when that is low.
bool hasSpareDescriptors();

/// Descriptors that are kept open, to be closed when others are needed. One thread at a time.
class DescriptorReserve {
 public:
  DescriptorReserve() { refill(); }
  ~DescriptorReserve() { release(); }
  DescriptorReserve(const DescriptorReserve&) = delete;
  DescriptorReserve& operator=(const DescriptorReserve&) = delete;

  void release();
  /// Opens as many as the limit allows.
  void refill();

 private:
  std::array<int, 8> kept_{-1, -1, -1, -1, -1, -1, -1, -1};
};

}  // namespace zq
