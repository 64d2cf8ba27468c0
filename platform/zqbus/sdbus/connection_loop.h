// One sd-bus connection, shared by many threads, of which one at a time reads it.
//
// The loop role is the task of reading the connection and of dispatching each message that came.
// One thread at a time has the role. If a thread of the library always had it, every reply would
// cost a second context switch to the caller that waits for it, more than all the rest of a call.
// So a caller takes the role before it sends its request, when no other caller has it. A caller
// that comes while the role is taken sleeps, with its own deadline, until its reply has come or the
// role is handed to it. While no caller waits, a thread of the loop has the role.
//
// A message may ask for work: the function that the loop was made with, which runs callbacks of the
// program and may take long. Only threads of the loop do the work. The thread that read the message
// does it itself, unless a caller has the role. With WhileWorking::Read, a second thread of the
// loop takes the role meanwhile.
//
// The sd_bus, its messages and its slots are used under one mutex. No thread holds the mutex while
// it sleeps, works or wakes a caller. C callbacks of sd-bus run under the mutex: they copy values
// out, and leave it to the work to call the program.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "platform/util/mutex.h"
#include "sd_bus_handles.h"

namespace zq {

class ConnectionLoop : public std::enable_shared_from_this<ConnectionLoop> {
 public:
  using Clock = std::chrono::steady_clock;

  /// The owner of a connection. All of its functions are called under the loop's mutex, on the
  /// thread that reads.
  class Listener {
   public:
    virtual ~Listener() = default;
    /// The connection is lost and of no further use. Called once, and not after close().
    virtual void onConnectionLost() = 0;
    /// The socket has taken every message that was to be sent.
    virtual void onAllSent() {}
    /// When to call onDeadline() next.
    virtual Clock::time_point nextDeadline() const { return Clock::time_point::max(); }
    /// The deadline has passed.
    virtual void onDeadline(Clock::time_point /*now*/) {}
  };

  /// A caller that waits for a C callback. Shared, since the thread that wakes it does so after
  /// unlocking, when the caller may have returned already.
  struct Waiter {
    virtual ~Waiter() = default;
    ConditionVariable wake;
    bool done = false;  // under the loop's mutex
  };

  /// Whether the connection is read while a thread of the loop runs `work`.
  enum class WhileWorking { Wait, Read };

  /// Takes over a connection that is ready. `listener` lives until close() and hears nothing before
  /// start(). requestWork() has `work` run, without the mutex; `work` throws nothing.
  ConnectionLoop(SdBus bus, Listener& listener, std::function<void()> work,
                 WhileWorking whileWorking);
  ~ConnectionLoop();
  ConnectionLoop(const ConnectionLoop&) = delete;
  ConnectionLoop& operator=(const ConnectionLoop&) = delete;

  /// Starts the reading; 0, or a negative error number when the process is out of threads or
  /// descriptors. The loop lives on as long as a thread of its own runs.
  [[nodiscard]] int start() REQUIRES(mutex_);
  /// Closes the connection, after sending what is unsent if the peer takes it within a second, and
  /// has the threads end without waiting for them. No Turn exists any more.
  void close() EXCLUDES(mutex_) { closeAll({this}); }
  /// Closes many connections, within one second for all of them together.
  static void closeAll(const std::vector<ConnectionLoop*>& loops);
  /// Waits, after close(), until the loop's threads have ended; not to be called on such a thread.
  void join() EXCLUDES(mutex_);

  /// What the connection, and the state of its owner, is used under.
  Mutex& mutex() RETURN_CAPABILITY(mutex_) { return mutex_; }

  /// Holds the mutex while it lives. Goes ahead of a loop that has much to read.
  class SCOPED_CAPABILITY Hold {
   public:
    explicit Hold(ConnectionLoop& loop) ACQUIRE(loop.mutex_);
    ~Hold() RELEASE();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    ConnectionLoop& loop_;
  };

  sd_bus* bus() const REQUIRES(mutex_) { return bus_.get(); }
  bool lost() const REQUIRES(mutex_) { return lost_; }
  /// Whether messages wait for the peer to make room for them.
  bool hasUnsent() const REQUIRES(mutex_);

  /// Marks a waiter as done and has it woken.
  void complete(const std::shared_ptr<Waiter>& waiter) REQUIRES(mutex_);
  /// Has a thread of the loop run `work` next; wakes a thread if all of them sleep.
  void requestWork() REQUIRES(mutex_);
  /// To be called after a message was sent outside of a Turn: the thread that sleeps in the role
  /// has to wait for room in the socket too, and for the deadline of a new call.
  void afterSend() REQUIRES(mutex_);

  /// A caller's use of the connection, from before it sends its request until it has the reply. The
  /// mutex is held for as long as a Turn lives, except while waitUntil() sleeps. The constructor
  /// takes the loop role if it is free: no thread of the loop wakes for the reply then.
  class SCOPED_CAPABILITY Turn {
   public:
    Turn(ConnectionLoop& loop, std::shared_ptr<Waiter> waiter) ACQUIRE(loop.mutex_);
    ~Turn() RELEASE();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    /// Waits until the waiter is done, the connection is lost or the deadline has passed.
    void waitUntil(Clock::time_point deadline);

   private:
    ConnectionLoop& loop_;
    std::shared_ptr<Waiter> waiter_;
  };

 private:
  void enter() ACQUIRE(mutex_);
  void unlockAndWake() RELEASE(mutex_);
  void letOthersIn() REQUIRES(mutex_);

  int processBus() REQUIRES(mutex_);
  void processOne() REQUIRES(mutex_);
  void checkDeadline() REQUIRES(mutex_);
  uint64_t timeout() const REQUIRES(mutex_);
  uint32_t interest() const REQUIRES(mutex_);
  void loseConnection() REQUIRES(mutex_);
  void closeBus() REQUIRES(mutex_);
  bool sendMore() EXCLUDES(mutex_);

  void startThread();
  void run() EXCLUDES(mutex_);
  bool mayRead() const REQUIRES(mutex_) { return unread_ && leader_ == nullptr && !lost_; }
  bool mustWorkFirst() const REQUIRES(mutex_);
  void readAsThread() REQUIRES(mutex_);
  void work() REQUIRES(mutex_);
  void sleepAsThread() REQUIRES(mutex_);
  void watch(uint32_t events) REQUIRES(mutex_);

  void waitFor(const std::shared_ptr<Waiter>& waiter, Clock::time_point deadline) REQUIRES(mutex_);
  void sleepAsLeader(Clock::time_point deadline) REQUIRES(mutex_);
  void leave(const std::shared_ptr<Waiter>& waiter) REQUIRES(mutex_);

  Listener& listener_;
  const std::function<void()> work_;
  const WhileWorking whileWorking_;
  const uint32_t edge_;  // EPOLLET for two threads, so that one of them wakes
  Mutex mutex_;
  std::atomic<int> entering_ = 0;
  ConditionVariable entered_;

  SdBus bus_ GUARDED_BY(mutex_);
  const int busDescriptor_;
  bool unread_ GUARDED_BY(mutex_) = true;    // may hold unread input without a pending wake-up
  bool settled_ GUARDED_BY(mutex_) = false;  // sd-bus holds nothing that came with the handshake
  int inARow_ GUARDED_BY(mutex_) = 0;        // messages since a thread slept or let others in
  bool lost_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;

  // Callers that wait.
  Waiter* leader_ GUARDED_BY(mutex_) = nullptr;   // the caller with the loop role; null without one
  const int leaderEvent_;                         // wakes it
  uint32_t leaderEvents_ GUARDED_BY(mutex_) = 0;  // the poll events it waits for; 0 when awake
  uint64_t leaderTimeout_ GUARDED_BY(mutex_) = 0;  // when it wakes by itself, in sd-bus's time
  std::vector<std::shared_ptr<Waiter>> followers_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Waiter>> toWake_ GUARDED_BY(mutex_);

  // The loop's threads: one, and a second from the first work on.
  int threads_ GUARDED_BY(mutex_) = 0;
  ConditionVariable allEnded_;
  const int threadEvent_;
  const int epoll_;
  uint32_t watched_ GUARDED_BY(mutex_) = 0;  // the poll events that they wait for
  uint64_t threadTimeout_ GUARDED_BY(mutex_) =
      0;                                    // when a thread wakes by itself, in sd-bus's time
  bool hungUp_ GUARDED_BY(mutex_) = false;  // a thread saw that the peer has closed
  int awake_ GUARDED_BY(mutex_) = 0;  // threads that look at the state again before they sleep
  bool workWanted_ GUARDED_BY(mutex_) = false;
};

}  // namespace zq
