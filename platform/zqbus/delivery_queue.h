// Callbacks that wait for their turn: one at a time, in the order in which they were posted.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zq {

/// Has no thread of its own: whoever brings a job also sees to it that somebody calls run(). It
/// outlives every thread that may be at that.
class DeliveryQueue {
 public:
  using Job = std::function<void()>;

  /// Posts what must not be lost. Its number is bounded by what its posters have under way. True
  /// when nobody is at work on the queue, so that run() must be called.
  [[nodiscard]] bool post(Job job);
  /// Posts an event that holds `size` bytes, unless the queue is full: then it is dropped and
  /// counted, and the log says so. True as for post().
  [[nodiscard]] bool postEvent(Job job, std::size_t size);

  /// Runs all that was posted and is posted meanwhile, unless another thread is at that already.
  void run();

  /// Called by a job: runs the rest of it on a thread of its own, beside the jobs that follow. Runs
  /// it at once when there is no thread to be had.
  void runApart(Job job);

  /// Blocks until every job that is running now has ended, those apart too. Returns at once inside
  /// a job.
  void waitForRunning();

  uint64_t droppedEvents() const;

 private:
  struct Entry {
    Job job;
    std::size_t size;
  };
  struct Apart {
    uint64_t number;
    std::thread::id thread;
  };
  void append(Entry entry);
  void runOnOwnThread(const Job& job, uint64_t number);
  bool isInJob() const;
  bool runsApart(uint64_t upTo) const;

  mutable std::mutex mutex_;
  std::deque<Entry> entries_;
  std::size_t bytes_ = 0;
  uint64_t dropped_ = 0;
  uint64_t droppedInARow_ = 0;
  bool running_ = false;
  std::thread::id runner_;  // while a job runs
  uint64_t ended_ = 0;      // jobs
  std::vector<Apart> apart_;
  uint64_t lastApart_ = 0;
  int waiting_ = 0;
  std::condition_variable jobEnded_;
};

}  // namespace zq
