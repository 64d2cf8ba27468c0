// Things to wait for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zq {

/// How long a test waits for what must happen; only a broken one ever waits so long.
inline constexpr std::chrono::seconds kPatience{30};

/// A value that one thread sets under a lock and another waits for.
template <typename T>
class Watched {
 public:
  template <typename Change>
  void change(Change change) {
    // Notified under the lock: who waits may destroy this as soon as it has seen the change.
    const std::lock_guard lock(mutex_);
    change(value_);
    changed_.notify_all();
  }
  /// Waits until `condition` holds for the value; false when it does not come to that.
  template <typename Condition>
  [[nodiscard]] bool wait(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return condition(value_); });
  }
  T get() {
    const std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_{};
};

}  // namespace zq
