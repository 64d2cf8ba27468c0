#include "delivery_queue.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "bus_log.h"
#include "platform/util/library_thread.h"

namespace zq {
namespace {

constexpr std::size_t kMaxEvents = 65536;
constexpr std::size_t kMaxBytes = std::size_t{64} << 20;

void runGuarded(const DeliveryQueue::Job& job) {
  try {
    job();
  } catch (const std::exception& error) {
    busLog(std::string("a callback threw: ") + error.what());
  } catch (...) {
    busLog("a callback threw something other than a std::exception");
  }
}

}  // namespace

bool DeliveryQueue::post(Job job) {
  const MutexLock lock(mutex_);
  append({std::move(job), 0});
  return !running_;
}

bool DeliveryQueue::postEvent(Job job, std::size_t size) {
  uint64_t droppedBefore = 0;
  bool idle = false;
  {
    const MutexLock lock(mutex_);
    idle = !running_;
    if (entries_.size() >= kMaxEvents || bytes_ + size > kMaxBytes) {
      ++dropped_;
      if (++droppedInARow_ > 1) return idle;
    } else {
      append({std::move(job), size});
      droppedBefore = std::exchange(droppedInARow_, 0);
      if (droppedBefore == 0) return idle;
    }
  }
  busLog(droppedBefore == 0 ? "the delivery queue is full: events are being dropped"
                            : "dropped " + std::to_string(droppedBefore) + " events");
  return idle;
}

void DeliveryQueue::append(Entry entry) {
  bytes_ += entry.size;
  entries_.push_back(std::move(entry));
}

uint64_t DeliveryQueue::droppedEvents() const {
  const MutexLock lock(mutex_);
  return dropped_;
}

void DeliveryQueue::run() {
  MutexLock lock(mutex_);
  if (std::exchange(running_, true)) return;
  while (!entries_.empty()) {
    Entry entry = std::move(entries_.front());
    entries_.pop_front();
    bytes_ -= entry.size;
    runner_ = std::this_thread::get_id();
    lock.unlock();
    runGuarded(entry.job);
    entry.job = nullptr;  // destroying what it holds may take a connection's mutex
    lock.lock();
    runner_ = {};
    ++ended_;
    if (waiting_ > 0) jobEnded_.notifyAll();
  }
  running_ = false;
}

void DeliveryQueue::runApart(Job job) {
  uint64_t number = 0;
  {
    const MutexLock lock(mutex_);
    number = ++lastApart_;
    apart_.push_back({number, {}});
  }
  try {
    startLibraryThread("zqbus-death", [this, job, number] {
      runOnOwnThread(job, number);
    }).detach();
  } catch (const std::exception& error) {
    busLog("no thread for a death callback, deliveries wait for it: ", error.what());
    runOnOwnThread(job, number);
  }
}

void DeliveryQueue::runOnOwnThread(const Job& job, uint64_t number) {
  const auto isThis = [number](const Apart& apart) { return apart.number == number; };
  {
    const MutexLock lock(mutex_);
    std::find_if(apart_.begin(), apart_.end(), isThis)->thread = std::this_thread::get_id();
  }
  runGuarded(job);
  const MutexLock lock(mutex_);
  std::erase_if(apart_, isThis);
  jobEnded_.notifyAll();
}

void DeliveryQueue::waitForRunning() {
  const MutexLock lock(mutex_);
  if (isInJob()) return;
  const uint64_t ended = ended_;
  const uint64_t lastApart = lastApart_;
  ++waiting_;
  while (stillRuns(ended, lastApart)) jobEnded_.wait(mutex_);
  --waiting_;
}

/// Whether this thread runs a job.
bool DeliveryQueue::isInJob() const {
  const auto self = std::this_thread::get_id();
  return runner_ == self || std::any_of(apart_.begin(), apart_.end(),
                                        [&](const Apart& apart) { return apart.thread == self; });
}

/// Whether the job after the first `ended` runs, or a job apart up to number `lastApart`.
bool DeliveryQueue::stillRuns(uint64_t ended, uint64_t lastApart) const {
  const bool sameJob = runner_ != std::thread::id() && ended_ == ended;
  return sameJob || std::any_of(apart_.begin(), apart_.end(),
                                [&](const Apart& apart) { return apart.number <= lastApart; });
}

}  // namespace zq
