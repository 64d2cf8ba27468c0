// How a service survives the process's limit of descriptors.
//
// A message with more descriptors than the process may still open ends the connection that it comes
// on. So the service refuses work that takes descriptors while a message could exceed the limit,
// and keeps a reserve of descriptors, with which it connects again if the bus was lost all the
// same.
#pragma once

#include <array>

namespace zq {

/// Whether the process may still open as many descriptors as one message can carry, or a quarter of
/// its limit when that is low.
bool hasSpareDescriptors();
/// Whether it has them, and more beside them, before a line is opened. Without these, lines would
/// take so many that the service refuses every new client.
bool hasSpareDescriptorsForLine();

/// Descriptors that are kept open, to be closed when the service connects again. Used by one thread
/// at a time.
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
