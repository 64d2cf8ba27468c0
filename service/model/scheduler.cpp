#include "service/model/scheduler.h"

#include <utility>

namespace zq::devservice {

Scheduler::Scheduler() : thread_([this] { run(); }) {}

void Scheduler::stop() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
  }
  changed_.notifyOne();
  if (thread_.joinable()) thread_.join();
}

void Scheduler::after(std::chrono::milliseconds delay, std::function<void()> task) {
  {
    const MutexLock lock(mutex_);
    tasks_.emplace(Clock::now() + delay, std::move(task));
  }
  changed_.notifyOne();
}

void Scheduler::run() {
  MutexLock lock(mutex_);
  while (!ending_) {
    if (tasks_.empty()) {
      changed_.wait(mutex_);
    } else if (const auto due = tasks_.begin()->first; due > Clock::now()) {
      changed_.waitUntil(mutex_, due);
    } else {
      auto task = tasks_.extract(tasks_.begin());
      lock.unlock();
      task.mapped()();
      task = {};  // what the task held goes before the lock is taken again
      lock.lock();
    }
  }
}

}  // namespace zq::devservice
