// What the proxy does not touch in a forked child.
#pragma once

#include <mutex>

namespace zq {

/// Notes that this process uses the library. Every use begins with it.
void noteUse();
/// Whether this process was forked by one that had used the library by then. Its locks may be held
/// by threads that do not exist here, for ever. To be asked after noteUse() only.
bool inForkedChild();

/// Holds a mutex until it goes; false, without touching the mutex, in a forked child.
class ProcessLock {
 public:
  explicit ProcessLock(std::mutex& mutex) : lock_(mutex, std::defer_lock) {
    if (!inForkedChild()) lock_.lock();
  }
  explicit operator bool() const { return lock_.owns_lock(); }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace zq
