// From the library's delivery thread to the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace zq::ctl {

/// A queue that one thread fills and another waits on.
template <typename Letter>
class Mailbox {
 public:
  void put(Letter letter) {
    const std::lock_guard lock(mutex_);
    letters_.push_back(std::move(letter));
    arrived_.notify_one();
  }

  /// The next letter; nothing when none comes within `timeout`.
  std::optional<Letter> take(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, timeout, [this] { return !letters_.empty(); })) {
      return std::nullopt;
    }
    std::optional<Letter> letter = std::move(letters_.front());
    letters_.pop_front();
    return letter;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Letter> letters_;
};

}  // namespace zq::ctl
