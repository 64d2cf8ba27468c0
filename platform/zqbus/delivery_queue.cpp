#include "delivery_queue.h"

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
    busLog("a callback threw what is no std::exception");
  }
}

}  // namespace

DeliveryQueue::~DeliveryQueue() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  posted_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void DeliveryQueue::post(Job job) {
  const std::lock_guard lock(mutex_);
  append({std::move(job), 0});
}

void DeliveryQueue::postEvent(Job job, std::size_t size) {
  uint64_t droppedBefore = 0;
  {
    const std::lock_guard lock(mutex_);
    if (entries_.size() >= kMaxEvents || bytes_ + size > kMaxBytes) {
      ++dropped_;
      if (++droppedInARow_ > 1) return;
    } else {
      append({std::move(job), size});
      droppedBefore = std::exchange(droppedInARow_, 0);
      if (droppedBefore == 0) return;
    }
  }
  busLog(droppedBefore == 0 ? "the delivery queue is full: events are being dropped"
                            : "dropped " + std::to_string(droppedBefore) + " events");
}

void DeliveryQueue::append(Entry entry) {
  bytes_ += entry.size;
  entries_.push_back(std::move(entry));
  // The thread comes with the first job: a client that connects should not wait for it to start.
  if (!thread_.joinable()) thread_ = startLibraryThread("zqbus-delivery", [this] { run(); });
  if (entries_.size() == 1) posted_.notify_one();
}

uint64_t DeliveryQueue::droppedEvents() const {
  const std::lock_guard lock(mutex_);
  return dropped_;
}

void DeliveryQueue::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    posted_.wait(lock, [this] { return stopping_ || !entries_.empty(); });
    if (stopping_) return;
    Entry entry = std::move(entries_.front());
    entries_.pop_front();
    bytes_ -= entry.size;
    lock.unlock();
    runGuarded(entry.job);
    entry.job = nullptr;  // what it holds may take the lock of a poster when it goes
    lock.lock();
  }
}

}  // namespace zq
