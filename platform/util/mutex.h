// A mutex, its guard and a condition variable, whose use Clang checks when it compiles
// (-Wthread-safety). Another compiler sees the plain classes.
//
// GUARDED_BY(mutex) stands behind a member that is used under `mutex` alone; REQUIRES(mutex) behind
// a function whose caller holds it; EXCLUDES(mutex) behind a function that takes it itself. The
// analysis looks at one function at a time. It does not see through C callbacks, virtual calls and
// std::function: the function that is called so says what it requires, and where it cannot,
// assertHeld() does.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cassert>
#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define ZQ_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define ZQ_THREAD_ANNOTATION(attribute)
#endif

#define CAPABILITY(name) ZQ_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY ZQ_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(mutex) ZQ_THREAD_ANNOTATION(guarded_by(mutex))
#define REQUIRES(...) ZQ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) ZQ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) ZQ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZQ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(mutex) ZQ_THREAD_ANNOTATION(assert_capability(mutex))
#define RETURN_CAPABILITY(mutex) ZQ_THREAD_ANNOTATION(lock_returned(mutex))

namespace zq {

class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;

  void lock() ACQUIRE() {
    mutex_.lock();
    noteHolder(::pthread_self());
  }
  void unlock() RELEASE() {
    noteHolder(kNobody);
    mutex_.unlock();
  }
  /// Tells the analysis that this thread holds the mutex. A build without NDEBUG checks it.
  void assertHeld() const ASSERT_CAPABILITY(this) {
#ifndef NDEBUG
    assert(holder_.load(std::memory_order_relaxed) == ::pthread_self());
#endif
  }

 private:
  friend class ConditionVariable;
  static constexpr pthread_t kNobody = 0;

  void noteHolder([[maybe_unused]] pthread_t thread) {
#ifndef NDEBUG
    holder_.store(thread, std::memory_order_relaxed);
#endif
  }

  std::mutex mutex_;
#ifndef NDEBUG
  std::atomic<pthread_t> holder_ = kNobody;
#endif
};

/// Holds a mutex while it lives, but for the time between its unlock() and its lock().
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { lock(); }
  ~MutexLock() RELEASE() {
    if (held_) unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }
  void unlock() RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  Mutex& mutex_;
  bool held_ = false;
};

/// As std::condition_variable. It takes no predicate, which the analysis could not check: wait in a
/// loop that tests the condition.
class ConditionVariable {
 public:
  using Clock = std::chrono::steady_clock;

  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

  void wait(Mutex& mutex) REQUIRES(mutex) {
    Adopted adopted(mutex);
    condition_.wait(adopted.lock);
  }
  /// False once `deadline` has passed.
  bool waitUntil(Mutex& mutex, Clock::time_point deadline) REQUIRES(mutex) {
    Adopted adopted(mutex);
    return condition_.wait_until(adopted.lock, deadline) == std::cv_status::no_timeout;
  }

 private:
  /// The lock that the caller holds, in the form that std::condition_variable takes.
  struct Adopted {
    explicit Adopted(Mutex& held) : mutex(held), lock(held.mutex_, std::adopt_lock) {
      mutex.noteHolder(Mutex::kNobody);
    }
    ~Adopted() {
      mutex.noteHolder(::pthread_self());
      lock.release();  // the caller goes on holding it
    }
    Mutex& mutex;
    std::unique_lock<std::mutex> lock;
  };

  std::condition_variable condition_;
};

}  // namespace zq
