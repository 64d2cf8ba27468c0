// Callbacks that wait for their turn: one at a time, in the order in which they were posted.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "platform/util/mutex.h"

namespace zq {

/// Has no thread of its own: a thread that posts a job has run() called if post() says so. The
/// queue outlives every thread that may call run().
class DeliveryQueue {
 public:
  using Job = std::function<void()>;

  /// Posts a job that must not be lost: there are at most as many as calls in flight and deaths.
  /// True when no thread works on the queue, so that run() must be called.
  [[nodiscard]] bool post(Job job) EXCLUDES(mutex_);
  /// Posts an event that holds `size` bytes. A full queue drops and counts the event, and logs it.
  /// True as for post().
  [[nodiscard]] bool postEvent(Job job, std::size_t size) EXCLUDES(mutex_);

  /// Runs the posted jobs, and the jobs that are posted meanwhile, unless another thread does.
  void run() EXCLUDES(mutex_);

  /// Called by a job: runs `job` on a thread of its own, beside the jobs that follow; at once when
  /// no thread can be started.
  void runApart(Job job) EXCLUDES(mutex_);

  /// Blocks until every job that is running now has ended, the jobs apart too. Returns at once
  /// inside a job.
  void waitForRunning() EXCLUDES(mutex_);

  uint64_t droppedEvents() const EXCLUDES(mutex_);

 private:
  struct Entry {
    Job job;
    std::size_t size;
  };
  struct Apart {
    uint64_t number;
    std::thread::id thread;
  };
  void append(Entry entry) REQUIRES(mutex_);
  void runOnOwnThread(const Job& job, uint64_t number) EXCLUDES(mutex_);
  bool isInJob() const REQUIRES(mutex_);
  bool stillRuns(uint64_t ended, uint64_t lastApart) const REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::deque<Entry> entries_ GUARDED_BY(mutex_);
  std::size_t bytes_ GUARDED_BY(mutex_) = 0;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  uint64_t droppedInARow_ GUARDED_BY(mutex_) = 0;
  bool running_ GUARDED_BY(mutex_) = false;
  std::thread::id runner_ GUARDED_BY(mutex_);  // while a job runs
  uint64_t ended_ GUARDED_BY(mutex_) = 0;      // jobs
  std::vector<Apart> apart_ GUARDED_BY(mutex_);
  uint64_t lastApart_ GUARDED_BY(mutex_) = 0;
  int waiting_ GUARDED_BY(mutex_) = 0;
  ConditionVariable jobEnded_;
};

}  // namespace zq
