// Values and results to wait for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <utility>

namespace zq {

/// How long a test waits for what must happen; only a broken one ever waits so long.
inline constexpr std::chrono::seconds kPatience{30};

/// Runs a function on another thread.
template <typename Run>
auto soon(Run run) {
  return std::async(std::launch::async, std::move(run));
}

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
  void set(T value) {
    change([&](T& now) { now = std::move(value); });
  }
  /// Adds one to a number, or an element to a list.
  void increment() {
    change([](T& now) { ++now; });
  }
  template <typename Element>
  void append(Element element) {
    change([&](T& now) { now.push_back(std::move(element)); });
  }
  /// The value until now; an empty one takes its place.
  T take() {
    T taken{};
    change([&](T& now) { std::swap(now, taken); });
    return taken;
  }
  /// Waits until `condition` holds for the value; false when it does not come to that.
  template <typename Condition>
  [[nodiscard]] bool wait(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return condition(value_); });
  }
  [[nodiscard]] bool waitFor(const T& value) {
    return wait([&](const T& now) { return now == value; });
  }
  [[nodiscard]] bool waitForSize(std::size_t size) {
    return wait([&](const T& now) { return now.size() >= size; });
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
