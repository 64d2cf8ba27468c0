// From the library's delivery thread to the main thread.
#pragma once

#include <chrono>
#include <deque>
#include <optional>

#include "platform/util/mutex.h"

namespace zq::ctl {

/// A queue that one thread fills and another waits on.
template <typename Letter>
class Mailbox {
 public:
  void put(Letter letter) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    letters_.push_back(std::move(letter));
    arrived_.notifyOne();
  }

  /// The next letter; nothing when none comes within `timeout`.
  std::optional<Letter> take(std::chrono::milliseconds timeout) EXCLUDES(mutex_) {
    const auto deadline = ConditionVariable::Clock::now() + timeout;
    const MutexLock lock(mutex_);
    while (letters_.empty()) {
      if (!arrived_.waitUntil(mutex_, deadline) && letters_.empty()) return std::nullopt;
    }
    std::optional<Letter> letter = std::move(letters_.front());
    letters_.pop_front();
    return letter;
  }

 private:
  Mutex mutex_;
  ConditionVariable arrived_;
  std::deque<Letter> letters_ GUARDED_BY(mutex_);
};

}  // namespace zq::ctl
