// A thread that runs tasks when they are due.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "service/model/timer.h"

namespace zq::devservice {

/// Any thread may call after(). Tasks run one at a time on the scheduler's thread.
class Scheduler : public Timer {
 public:
  Scheduler();
  ~Scheduler() override { stop(); }
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  /// Waits for the task that runs and forgets the others, and those that come later.
  void stop();

  void after(std::chrono::milliseconds delay, std::function<void()> task) override;

 private:
  using Clock = std::chrono::steady_clock;

  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, std::function<void()>> tasks_;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace zq::devservice
