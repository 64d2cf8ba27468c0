// A thread that runs tasks when they are due.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "platform/util/mutex.h"
#include "service/model/timer.h"

namespace zq::devservice {

/// Any thread may call after(). Tasks run one at a time on the scheduler's thread.
class Scheduler : public Timer {
 public:
  Scheduler();
  ~Scheduler() override { stop(); }
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  /// Waits for the running task and forgets all others, also tasks that come later.
  void stop() EXCLUDES(mutex_);

  void after(std::chrono::milliseconds delay, std::function<void()> task) override EXCLUDES(mutex_);

 private:
  using Clock = std::chrono::steady_clock;

  void run() EXCLUDES(mutex_);

  Mutex mutex_;
  ConditionVariable changed_;
  std::multimap<Clock::time_point, std::function<void()>> tasks_ GUARDED_BY(mutex_);
  bool ending_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace zq::devservice
