// Delayed tasks of the model.
#pragma once

#include <chrono>
#include <functional>

namespace zq::devservice {

/// Any thread may call after().
class Timer {
 public:
  virtual ~Timer() = default;
  /// Runs `task` once, `delay` from now, never from inside this call. The task that is due
  /// first runs first. Tasks that are not yet due when the timer ends do not run.
  virtual void after(std::chrono::milliseconds delay, std::function<void()> task) = 0;
};

}  // namespace zq::devservice
