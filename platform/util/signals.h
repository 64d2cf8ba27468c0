// Signals and cancellation in a program that is not ours.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string_view>

namespace zq {

/// Blocks `signals` in the calling thread while it lives, besides the signals that are blocked
/// already.
class BlockedSignals {
 public:
  explicit BlockedSignals(const sigset_t& signals);
  ~BlockedSignals();
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t previous_;
};

/// Keeps pthread_cancel from ending the calling thread while it lives. A thread that is ended
/// inside a noexcept function takes the whole program with it.
class NoCancellation {
 public:
  NoCancellation();
  ~NoCancellation();
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int previous_ = 0;
};

/// write(2), but a file at the process's size limit and a pipe without a reader are errors (EFBIG,
/// EPIPE) and raise no signal.
ssize_t writeWithoutSignal(int descriptor, std::string_view bytes);

}  // namespace zq
