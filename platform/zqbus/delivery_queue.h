// The delivery thread: runs callbacks one at a time, in the order in which they were posted.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zq {

class DeliveryQueue {
 public:
  using Job = std::function<void()>;

  DeliveryQueue() = default;
  /// Waits for the job that runs; drops the others. Not to be called on the delivery thread.
  ~DeliveryQueue();
  DeliveryQueue(const DeliveryQueue&) = delete;
  DeliveryQueue& operator=(const DeliveryQueue&) = delete;

  /// Posts what must not be lost. Its number is bounded by what its posters have under way.
  void post(Job job);
  /// Posts an event that holds `size` bytes, unless the queue is full: then it is dropped and
  /// counted, and the log says so.
  void postEvent(Job job, std::size_t size);

  uint64_t droppedEvents() const;

 private:
  struct Entry {
    Job job;
    std::size_t size;
  };
  void append(Entry entry);
  void run();

  mutable std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<Entry> entries_;
  std::size_t bytes_ = 0;
  uint64_t dropped_ = 0;
  uint64_t droppedInARow_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace zq
