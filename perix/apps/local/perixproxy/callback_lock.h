// The state of a thread that runs the client's callbacks.
#pragma once

#include "forked_child.h"

namespace zq {

/// While it lives, this thread is inside a callback.
class InsideCallback {
 public:
  InsideCallback() { ++depth(); }
  ~InsideCallback() { --depth(); }
  InsideCallback(const InsideCallback&) = delete;
  InsideCallback& operator=(const InsideCallback&) = delete;

  static bool now() { return depth() != 0; }

 private:
  static int& depth() {
    static thread_local constinit int depth = 0;
    return depth;
  }
};

/// Holds the mutex of the registries while callbacks are called; false in a forked child.
class CallbackLock {
 public:
  explicit CallbackLock(std::mutex& registries) : lock_(registries) {}
  explicit operator bool() const { return static_cast<bool>(lock_); }

 private:
  ProcessLock lock_;
  InsideCallback inside_;
};

}  // namespace zq
