// One sd-bus connection, shared by many threads, of which one at a time reads it.
//
// Handing every reply from a reading thread to the thread that waits for it would cost two context
// switches a call, more than everything else together. So a thread that waits reads the connection
// itself. The first to wait takes the reader role and dispatches for everybody; those that come
// while it is taken sleep, each with its own deadline, until their answer is there or the role is
// handed to them. When nobody waits, a thread of the reader's own has the role.
//
// Everything that touches the sd_bus, its messages and its slots happens under one mutex, which is
// given up only to sleep. C callbacks of sd-bus run under it too: they copy values out, and leave
// calling anybody to other threads.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "sd_bus_handles.h"

namespace zq {

class Reader {
 public:
  using Clock = std::chrono::steady_clock;
  using Lock = std::unique_lock<std::mutex>;

  /// What the owner of a connection hears. Both are called on whichever thread reads.
  class Listener {
   public:
    virtual ~Listener() = default;
    /// The connection is closed and of no further use. Called once, under the lock.
    virtual void onConnectionLost() = 0;
    /// Something may have been read and the lock is free: the place to call others.
    virtual void onLockFree() {}
  };

  /// Somebody who waits for something that a C callback will bring. Shared, since whoever wakes it
  /// does so after giving up the lock, when the sleeper may be gone already.
  struct Waiter {
    virtual ~Waiter() = default;
    std::condition_variable wake;
    bool done = false;
  };

  /// Takes over a connection that is ready; `listener` outlives the reader and hears nothing
  /// before start().
  Reader(SdBus bus, Listener& listener);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /// Starts the reading thread.
  void start();
  /// Ends the reading thread and closes the connection, after sending what was still to be sent
  /// if the other end takes it within a second.
  /// No Turn exists any more, and the caller is not the reading thread.
  void stop();

  /// The lock, from here to the end of the object. Goes ahead of a reader that has much to read.
  class Hold {
   public:
    explicit Hold(Reader& reader);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    Reader& reader_;
    Lock lock_;
  };

  /// The connection; under the lock.
  sd_bus* bus() const { return bus_.get(); }
  bool lost() const { return lost_; }

  /// Marks a waiter as done and has it woken; under the lock, from a C callback or a listener.
  void complete(const std::shared_ptr<Waiter>& waiter);

  /// To be called under the lock after anything was sent outside of a Turn.
  void sent();

  /// One thread's stay with the connection: from its construction to its end the thread holds the
  /// lock, but for the time in which it waits. Take it before sending what will be answered, so
  /// that the answer wakes this thread and no other.
  class Turn {
   public:
    Turn(Reader& reader, std::shared_ptr<Waiter> waiter);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    /// Waits until the waiter is done, the connection is lost or the deadline has passed.
    void waitUntil(Clock::time_point deadline);

   private:
    Reader& reader_;
    std::shared_ptr<Waiter> waiter_;
    Lock lock_;
  };

 private:
  void run();
  Lock enter();
  bool processOne(Lock& lock);
  void lead(Lock& lock, Clock::time_point deadline);
  void leave(const std::shared_ptr<Waiter>& waiter);
  void letOthersIn(Lock& lock);
  void unlockAndWake(Lock& lock);
  void watch(uint32_t events);
  void loseConnection();
  void flush();

  SdBus bus_;
  Listener& listener_;
  std::mutex mutex_;
  std::atomic<int> entering_ = 0;
  std::condition_variable entered_;
  int processedInARow_ = 0;
  bool lost_ = false;
  bool stopping_ = false;

  Waiter* leader_ = nullptr;  // null while the reading thread has the role
  std::vector<std::shared_ptr<Waiter>> followers_;
  std::vector<std::shared_ptr<Waiter>> toWake_;

  int busDescriptor_;
  int leaderEvent_;             // wakes a polling leader
  uint32_t leaderEvents_ = 0;   // what it waits for on the bus; 0 while it does not poll
  uint64_t leaderTimeout_ = 0;  // when it wakes by itself, in sd-bus's time
  bool leaderMayRead_ = false;  // its last look found something, so there may be more
  int threadEvent_;             // wakes the reading thread
  int epoll_;
  uint32_t watched_ = 0;        // what the reading thread waits for on the bus
  uint64_t threadTimeout_ = 0;  // when it wakes by itself, in sd-bus's time
  bool threadAside_ = false;    // it waits for threadEvent_ alone
  std::thread thread_;
};

}  // namespace zq
