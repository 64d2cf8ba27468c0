// Threads that wait at a known place, so that the order of events does not depend on luck.
#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "tests/support/watched.h"

namespace zq {

/// A place where one thread stops until another lets it go on.
class BlockingPoint {
 public:
  void stop() {
    state_.change([](State& state) { ++state.stopped; });
    EXPECT_TRUE(state_.wait([](const State& state) { return state.open; }));
  }
  void awaitStop(int stopped = 1) {
    ASSERT_TRUE(state_.wait([&](const State& state) { return state.stopped >= stopped; }));
  }
  void go() {
    state_.change([](State& state) { state.open = true; });
  }
  /// Runs `meanwhile` while a thread that runs `first` stands here; then the thread goes on.
  void during(const std::function<void()>& first, const std::function<void()>& meanwhile) {
    std::thread thread(first);
    awaitStop();
    meanwhile();
    go();
    thread.join();
  }

 private:
  struct State {
    int stopped = 0;
    bool open = false;
  };
  Watched<State> state_;
};

/// A thread of which it can be told that it waits for a lock.
class BlockableThread {
 public:
  explicit BlockableThread(std::function<void()> run)
      : thread_([this, run = std::move(run)] {
          id_ = static_cast<int>(::syscall(SYS_gettid));
          run();
          done_ = true;
        }) {}

  /// Waits until the thread sleeps in the kernel, or has ended; false when it has ended.
  bool awaitBlocked() {
    while (!done_ && !sleeps()) std::this_thread::yield();
    return !done_;
  }
  /// The end of the object joins, too.
  void join() { thread_.join(); }

 private:
  bool sleeps() const {
    if (id_ == 0) return false;
    std::ifstream stat("/proc/self/task/" + std::to_string(id_) + "/stat");
    std::string text;
    std::getline(stat, text);
    return text.find(") S ") != std::string::npos;
  }

  std::atomic<int> id_ = 0;
  std::atomic<bool> done_ = false;
  std::jthread thread_;
};

/// Whether `second` waits while a thread that runs `first` stands at the point; both have ended
/// then. `meanwhile` runs in between.
inline bool holdsUp(
    BlockingPoint& point, const std::function<void()>& first, const std::function<void()>& second,
    const std::function<void()>& meanwhile = [] {}) {
  bool blocked = false;
  std::optional<BlockableThread> other;
  point.during(first, [&] {
    other.emplace(second);
    blocked = other->awaitBlocked();
    meanwhile();
  });
  return blocked;
}

}  // namespace zq
