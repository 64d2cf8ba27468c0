#include "reader.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/util/library_thread.h"

namespace zq {
namespace {

// After so many messages in a row a reader looks whether somebody wants the lock.
constexpr int kFairAfter = 32;
constexpr std::chrono::milliseconds kFairWait{1};
constexpr std::chrono::milliseconds kFlushPatience{1000};
constexpr uint64_t kNever = UINT64_MAX;

void signalEvent(int descriptor) {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
}

void drainEvent(int descriptor) {
  uint64_t count;
  [[maybe_unused]] const ssize_t taken = ::read(descriptor, &count, sizeof count);
}

uint64_t busTimeout(sd_bus* bus) {
  uint64_t timeout = kNever;
  return sd_bus_get_timeout(bus, &timeout) >= 0 ? timeout : kNever;
}

/// How long a sleep may last that must end at `timeout` (sd-bus's time: microseconds of the steady
/// clock) and at `deadline`.
timespec sleepUntil(uint64_t timeout, Reader::Clock::time_point deadline) {
  using namespace std::chrono;
  constexpr auto kLongest = duration_cast<nanoseconds>(hours(1));
  nanoseconds left = kLongest;
  const auto now = Reader::Clock::now();
  if (deadline < now + kLongest) left = deadline - now;
  if (timeout < kNever) {
    const Reader::Clock::time_point at{microseconds(timeout)};
    left = std::min<nanoseconds>(left, at - now);
  }
  left = std::max(left, nanoseconds(0));
  return {static_cast<time_t>(left / seconds(1)), static_cast<long>((left % seconds(1)).count())};
}

}  // namespace

Reader::Reader(SdBus bus, Listener& listener)
    : bus_(std::move(bus)),
      listener_(listener),
      busDescriptor_(sd_bus_get_fd(bus_.get())),
      leaderEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      threadEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  epoll_event event{};
  event.data.fd = busDescriptor_;
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, busDescriptor_, &event);
  event.events = EPOLLIN;
  event.data.fd = threadEvent_;
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, threadEvent_, &event);
}

void Reader::start() {
  thread_ = startLibraryThread("zqbus-reader", [this] { run(); });
}

Reader::~Reader() {
  stop();
  bus_.reset();
  ::close(epoll_);
  ::close(threadEvent_);
  ::close(leaderEvent_);
}

void Reader::stop() {
  if (!thread_.joinable()) return;
  {
    const Hold hold(*this);
    stopping_ = true;
    signalEvent(threadEvent_);
  }
  thread_.join();
  const Hold hold(*this);
  if (lost_) return;
  lost_ = true;
  flush();
  sd_bus_close(bus_.get());
}

/// Sends what is still to be sent, unless the other end takes its time.
void Reader::flush() {
  const auto deadline = Clock::now() + kFlushPatience;
  uint64_t unsent = 0;
  while (sd_bus_get_n_queued_write(bus_.get(), &unsent) >= 0 && unsent > 0 &&
         Clock::now() < deadline) {
    pollfd polled{busDescriptor_, POLLOUT, 0};
    if (::poll(&polled, 1, static_cast<int>(kFlushPatience.count())) <= 0) return;
    if (sd_bus_process(bus_.get(), nullptr) < 0) return;
  }
}

Reader::Hold::Hold(Reader& reader) : reader_(reader), lock_(reader.enter()) {}

Reader::Hold::~Hold() {
  reader_.unlockAndWake(lock_);
}

Reader::Lock Reader::enter() {
  entering_.fetch_add(1, std::memory_order_relaxed);
  Lock lock(mutex_);
  if (entering_.fetch_sub(1, std::memory_order_relaxed) == 1) entered_.notify_all();
  return lock;
}

void Reader::complete(const std::shared_ptr<Waiter>& waiter) {
  waiter->done = true;
  if (waiter.get() != leader_) toWake_.push_back(waiter);
}

void Reader::sent() {
  if (lost_) return;
  const auto events = static_cast<uint32_t>(sd_bus_get_events(bus_.get()));
  const uint64_t timeout = busTimeout(bus_.get());
  if (leader_ == nullptr) {
    watch(events);
    if (timeout < threadTimeout_) signalEvent(threadEvent_);
  } else if (leaderEvents_ != 0 && (events != leaderEvents_ || timeout < leaderTimeout_)) {
    signalEvent(leaderEvent_);
  }
}

/// One step of reading; true when there may be more to read. Under the lock, which may be given up
/// in between.
bool Reader::processOne(Lock& lock) {
  const int result = sd_bus_process(bus_.get(), nullptr);
  if (result < 0 || sd_bus_is_open(bus_.get()) <= 0) {
    loseConnection();
    return false;
  }
  if (result == 0) {
    processedInARow_ = 0;
    return false;
  }
  unlockAndWake(lock);
  listener_.onLockFree();
  lock.lock();
  if (++processedInARow_ >= kFairAfter) letOthersIn(lock);
  return true;
}

/// A mutex is not fair: one who gives it up only to take it again keeps it for himself.
void Reader::letOthersIn(Lock& lock) {
  processedInARow_ = 0;
  entered_.wait_for(lock, kFairWait,
                    [this] { return entering_.load(std::memory_order_relaxed) == 0; });
}

void Reader::unlockAndWake(Lock& lock) {
  std::vector<std::shared_ptr<Waiter>> woken;
  woken.swap(toWake_);
  lock.unlock();
  for (const auto& waiter : woken) waiter->wake.notify_one();
}

/// Sets what wakes the reading thread.
void Reader::watch(uint32_t events) {
  if (events == watched_ || lost_) return;
  epoll_event event{};
  event.events = events;
  event.data.fd = busDescriptor_;
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, busDescriptor_, &event);
  watched_ = events;
}

void Reader::loseConnection() {
  if (lost_) return;
  lost_ = true;
  ::epoll_ctl(epoll_, EPOLL_CTL_DEL, busDescriptor_, nullptr);
  listener_.onConnectionLost();
  sd_bus_close(bus_.get());
  for (const auto& follower : followers_) toWake_.push_back(follower);
  signalEvent(threadEvent_);
}

// --- The reading thread --------------------------------------------------------------------------

void Reader::run() {
  Lock lock(mutex_);
  while (!stopping_) {
    if (leader_ == nullptr && !lost_ && processOne(lock)) continue;
    // Its interest is 0 while a leader reads, but a hang-up is reported all the same; the leader
    // sees it too and deals with it.
    threadAside_ = leader_ != nullptr || lost_;
    if (!threadAside_) {
      watch(static_cast<uint32_t>(sd_bus_get_events(bus_.get())));
      threadTimeout_ = busTimeout(bus_.get());
    } else {
      threadTimeout_ = kNever;
    }
    const timespec left = sleepUntil(threadTimeout_, Clock::time_point::max());
    pollfd polled{threadAside_ ? threadEvent_ : epoll_, POLLIN, 0};
    unlockAndWake(lock);
    listener_.onLockFree();
    ::ppoll(&polled, 1, &left, nullptr);
    drainEvent(threadEvent_);
    lock.lock();
  }
}

// --- Callers that wait ---------------------------------------------------------------------------

Reader::Turn::Turn(Reader& reader, std::shared_ptr<Waiter> waiter)
    : reader_(reader), waiter_(std::move(waiter)), lock_(reader.enter()) {
  if (reader_.leader_ != nullptr) {
    reader_.followers_.push_back(waiter_);
    return;
  }
  reader_.leader_ = waiter_.get();
  reader_.leaderMayRead_ = false;
  reader_.watch(0);
}

Reader::Turn::~Turn() {
  reader_.leave(waiter_);
  reader_.unlockAndWake(lock_);
}

void Reader::Turn::waitUntil(Clock::time_point deadline) {
  if (reader_.leader_ != waiter_.get()) reader_.sent();
  while (!waiter_->done && !reader_.lost_ && Clock::now() < deadline) {
    if (reader_.leader_ == waiter_.get()) {
      reader_.lead(lock_, deadline);
    } else {
      waiter_->wake.wait_until(lock_, deadline);
    }
  }
}

/// One step of a leader: sleeps until there is something to read, unless there may be already, and
/// dispatches one message.
void Reader::lead(Lock& lock, Clock::time_point deadline) {
  if (!leaderMayRead_) {
    leaderEvents_ = static_cast<uint32_t>(sd_bus_get_events(bus_.get()));
    leaderTimeout_ = busTimeout(bus_.get());
    const timespec left = sleepUntil(leaderTimeout_, deadline);
    pollfd polled[] = {{busDescriptor_, static_cast<short>(leaderEvents_), 0},
                       {leaderEvent_, POLLIN, 0}};
    unlockAndWake(lock);
    ::ppoll(polled, 2, &left, nullptr);
    if (polled[1].revents != 0) drainEvent(leaderEvent_);
    lock.lock();
    leaderEvents_ = 0;
  }
  leaderMayRead_ = processOne(lock);
}

/// Gives the role on: to a follower that still waits, else back to the reading thread.
void Reader::leave(const std::shared_ptr<Waiter>& waiter) {
  if (leader_ != waiter.get()) {
    std::erase(followers_, waiter);
    return;
  }
  leader_ = nullptr;
  const auto next = std::find_if(followers_.begin(), followers_.end(),
                                 [](const auto& follower) { return !follower->done; });
  if (next != followers_.end()) {
    leader_ = next->get();
    toWake_.push_back(*next);
    followers_.erase(next);
    return;
  }
  if (lost_) return;
  watch(static_cast<uint32_t>(sd_bus_get_events(bus_.get())));
  // What is left in sd-bus's own queue, and a timeout earlier than the one the thread sleeps
  // towards, show on no descriptor.
  if (threadAside_ || busTimeout(bus_.get()) < threadTimeout_) signalEvent(threadEvent_);
}

}  // namespace zq
