#include "delivery_queue.h"

#include <exception>
#include <string>
#include <utility>

#include "bus_log.h"

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
    busLog("a callback threw what is no std::exception");
  }
}

}  // namespace

bool DeliveryQueue::post(Job job) {
  const std::lock_guard lock(mutex_);
  append({std::move(job), 0});
  return !running_;
}

bool DeliveryQueue::postEvent(Job job, std::size_t size) {
  uint64_t droppedBefore = 0;
  bool idle = false;
  {
    const std::lock_guard lock(mutex_);
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
  const std::lock_guard lock(mutex_);
  return dropped_;
}

void DeliveryQueue::run() {
  std::unique_lock lock(mutex_);
  if (std::exchange(running_, true)) return;
  while (!entries_.empty()) {
    Entry entry = std::move(entries_.front());
    entries_.pop_front();
    bytes_ -= entry.size;
    lock.unlock();
    runGuarded(entry.job);
    entry.job = nullptr;  // what it holds may take the lock of a poster when it goes
    lock.lock();
  }
  running_ = false;
}

}  // namespace zq
