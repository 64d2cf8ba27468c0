// A forked child must not use the proxy's locks and connection.
#pragma once

#include <mutex>

namespace zq {

/// Notes that this process uses the library. Every use begins with it.
void noteUse();
/// Whether this process was forked from a process that had used the library. Threads that do not
/// exist here may hold the library's locks for ever. To be called after noteUse() only.
bool inForkedChild();

/// Holds a mutex while it lives; false, without using the mutex, in a forked child. A std::mutex,
/// since the proxy's mutexes are members of a public class; Clang does not check those.
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
