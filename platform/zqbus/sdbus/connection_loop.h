// One sd-bus connection, shared by many threads, of which one at a time reads it.
//
// Handing every reply from a reading thread to the thread that waits for it would cost two context
// switches a call, more than everything else together. So a thread that waits reads the connection
// itself. The first to wait takes the loop role and dispatches for everybody; those that come
// while it is taken sleep, each with its own deadline, until their answer is there or the role is
// handed to them. When nobody waits, a thread of the loop's own has the role.
//
// What is read may call for work that takes its time, callbacks above all. The thread that read it
// does the work too, for the same reason; a second thread reads in its place meanwhile.
//
// Everything that touches the sd_bus, its messages and its slots happens under one mutex, which is
// given up only to sleep and to work. C callbacks of sd-bus run under it too: they copy values out,
// and leave calling anybody to the work.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "sd_bus_handles.h"

namespace zq {

class ConnectionLoop : public std::enable_shared_from_this<ConnectionLoop> {
 public:
  using Clock = std::chrono::steady_clock;
  using Lock = std::unique_lock<std::mutex>;

  /// The owner of a connection.
  class Listener {
   public:
    virtual ~Listener() = default;
    /// The connection is lost and of no further use. Called once, under the lock, on whichever
    /// thread reads, and not after close().
    virtual void onConnectionLost() = 0;
    /// There is room for all that was to be sent. Called under the lock, on whichever thread reads.
    virtual void onAllSent() {}
    /// When onDeadline() is to be called next. Under the lock.
    virtual Clock::time_point nextDeadline() const { return Clock::time_point::max(); }
    /// That time has come. Called under the lock, on whichever thread reads.
    virtual void onDeadline(Clock::time_point /*now*/) {}
  };

  /// Somebody who waits for something that a C callback will bring. Shared, since whoever wakes it
  /// does so after giving up the lock, when the sleeper may be gone already.
  struct Waiter {
    virtual ~Waiter() = default;
    std::condition_variable wake;
    bool done = false;
  };

  /// Whether the connection is read while `work` runs.
  enum class WhileWorking { Wait, Read };

  /// Takes over a connection that is ready. `listener` lives until close() and hears nothing before
  /// start(). `work` is what requestWork() asks for; it runs without the lock and throws nothing.
  ConnectionLoop(SdBus bus, Listener& listener, std::function<void()> work,
                 WhileWorking whileWorking);
  ~ConnectionLoop();
  ConnectionLoop(const ConnectionLoop&) = delete;
  ConnectionLoop& operator=(const ConnectionLoop&) = delete;

  /// Starts the reading; 0, or a negative error number when there is no thread or no descriptor
  /// for it. The loop lives on as long as a thread of its own is at work.
  [[nodiscard]] int start();
  /// Closes the connection, after sending what was still to be sent if the other end takes it
  /// within a second, and has the threads end without waiting for them. No Turn exists any more.
  void close() { closeAll({this}); }
  /// Closes many connections, within that second for all of them together.
  static void closeAll(const std::vector<ConnectionLoop*>& readers);
  /// Waits, after close(), until no thread works any more; not from such a thread.
  void join();

  /// The lock, from here to the end of the object. Goes ahead of a loop that has much to read.
  class Hold {
   public:
    explicit Hold(ConnectionLoop& loop);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    ConnectionLoop& loop_;
    Lock lock_;
  };

  /// The connection; under the lock.
  sd_bus* bus() const { return bus_.get(); }
  bool lost() const { return lost_; }
  /// Whether something waits for the other end to make room for it; under the lock.
  bool hasUnsent() const;

  /// Marks a waiter as done and has it woken; under the lock.
  void complete(const std::shared_ptr<Waiter>& waiter);
  /// Has the work done on a thread of the loop's, soon; under the lock.
  void requestWork();
  /// To be called under the lock after anything was sent outside of a Turn.
  void afterSend();

  /// One thread's stay with the connection: from its construction to its end the thread holds the
  /// lock, but for the time in which it waits. Take it before sending what will be answered, so
  /// that the answer wakes this thread and no other.
  class Turn {
   public:
    Turn(ConnectionLoop& loop, std::shared_ptr<Waiter> waiter);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    /// Waits until the waiter is done, the connection is lost or the deadline has passed.
    void waitUntil(Clock::time_point deadline);

   private:
    ConnectionLoop& loop_;
    std::shared_ptr<Waiter> waiter_;
    Lock lock_;
  };

 private:
  Lock enter();
  void letOthersIn(Lock& lock);
  void unlockAndWake(Lock& lock);

  int processBus();
  void processOne(Lock& lock);
  void tellDeadline();
  uint64_t timeout() const;
  uint32_t interest() const;
  void loseConnection();
  void closeBus();
  bool sendMore();

  void startThread();
  void run();
  bool mayRead() const { return unread_ && leader_ == nullptr && !lost_; }
  void readAsThread(Lock& lock);
  void work(Lock& lock);
  void sleepAsThread(Lock& lock);
  void watch(uint32_t events);

  void sleepAsLeader(Lock& lock, Clock::time_point deadline);
  void leave(const std::shared_ptr<Waiter>& waiter);

  SdBus bus_;
  Listener& listener_;
  const std::function<void()> work_;
  const WhileWorking whileWorking_;
  const uint32_t edge_;  // EPOLLET for two threads, so that one of them wakes
  const int busDescriptor_;
  std::mutex mutex_;
  std::atomic<int> entering_ = 0;
  std::condition_variable entered_;

  bool unread_ = true;    // there may be something to read that nobody will be woken for
  bool settled_ = false;  // sd-bus holds nothing from before the connection was ready
  int inARow_ = 0;        // messages since somebody slept or let others in
  bool lost_ = false;
  bool closed_ = false;

  // Callers that wait.
  Waiter* leader_ = nullptr;    // null while a thread has the role
  const int leaderEvent_;       // wakes it
  uint32_t leaderEvents_ = 0;   // what it sleeps towards on the bus; 0 while it does not
  uint64_t leaderTimeout_ = 0;  // when it wakes by itself, in sd-bus's time
  std::vector<std::shared_ptr<Waiter>> followers_;
  std::vector<std::shared_ptr<Waiter>> toWake_;

  // Threads.
  int threads_ = 0;  // the second one from the first work on
  std::condition_variable allEnded_;
  const int threadEvent_;
  const int epoll_;
  uint32_t watched_ = 0;        // what they sleep towards on the bus
  uint64_t threadTimeout_ = 0;  // when one wakes by itself, in sd-bus's time
  bool hungUp_ = false;         // the other end has closed, as one of them saw
  int awake_ = 0;               // those that will look at what there is before they sleep
  bool workWanted_ = false;
};

}  // namespace zq
