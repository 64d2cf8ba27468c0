#include "connection_loop.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <span>
#include <thread>
#include <utility>

#include "platform/util/library_thread.h"
#include "platform/zqbus/bus_log.h"

namespace zq {
namespace {

// After so many messages in a row a loop lets other threads in, and does its work.
constexpr int kFairAfter = 32;
constexpr std::chrono::milliseconds kFairWait{1};
constexpr std::chrono::milliseconds kFlushTime{1000};
constexpr std::chrono::hours kLongestSleep{1};
constexpr uint64_t kNever = UINT64_MAX;
constexpr uint32_t kHungUp = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

void signalEvent(int descriptor) {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
}

uint64_t busTimeout(sd_bus* bus) {
  uint64_t timeout = kNever;
  return sd_bus_get_timeout(bus, &timeout) >= 0 ? timeout : kNever;
}

/// A time in sd-bus's terms: microseconds of the steady clock, rounded up.
uint64_t busTime(ConnectionLoop::Clock::time_point time) {
  using std::chrono::microseconds;
  if (time == ConnectionLoop::Clock::time_point::max()) return kNever;
  return static_cast<uint64_t>(ceil<microseconds>(time.time_since_epoch()).count());
}

/// How long a sleep may last that must end at `timeout`, in sd-bus's time, and at `deadline`;
/// rounded up.
int sleepMilliseconds(uint64_t timeout, ConnectionLoop::Clock::time_point deadline) {
  using namespace std::chrono;
  if (timeout == 0) return 0;
  if (timeout == kNever && deadline == ConnectionLoop::Clock::time_point::max()) return -1;
  const auto now = ConnectionLoop::Clock::now();
  auto end = std::min(deadline, now + kLongestSleep);
  if (timeout < kNever)
    end = std::min(end, ConnectionLoop::Clock::time_point(microseconds(timeout)));
  return static_cast<int>(std::max(ceil<milliseconds>(end - now), milliseconds(0)).count());
}

void drainEvent(int descriptor) {
  uint64_t count;
  [[maybe_unused]] const ssize_t taken = ::read(descriptor, &count, sizeof count);
}

void control(int epoll, int operation, int descriptor, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  ::epoll_ctl(epoll, operation, descriptor, &event);
}

/// Whether the socket holds unread bytes.
bool holdsBytes(int descriptor) {
  int bytes = 0;
  return ::ioctl(descriptor, FIONREAD, &bytes) != 0 || bytes > 0;
}

}  // namespace

ConnectionLoop::ConnectionLoop(SdBus bus, Listener& listener, std::function<void()> work,
                               WhileWorking whileWorking)
    : listener_(listener),
      work_(std::move(work)),
      whileWorking_(whileWorking),
      edge_(whileWorking == WhileWorking::Read ? EPOLLET : 0U),
      bus_(std::move(bus)),
      busDescriptor_(sd_bus_get_fd(bus_.get())),
      leaderEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      threadEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  control(epoll_, EPOLL_CTL_ADD, busDescriptor_, edge_);
  control(epoll_, EPOLL_CTL_ADD, threadEvent_, EPOLLIN | edge_);
}

ConnectionLoop::~ConnectionLoop() {
  bus_.reset();
  ::close(epoll_);
  ::close(threadEvent_);
  ::close(leaderEvent_);
}

int ConnectionLoop::start() {
  if (leaderEvent_ < 0 || threadEvent_ < 0 || epoll_ < 0) return -EMFILE;
  try {
    threads_ = 1;
    startThread();
  } catch (const std::exception&) {
    threads_ = 0;
    return -EAGAIN;
  }
  return 0;
}

void ConnectionLoop::closeAll(const std::vector<ConnectionLoop*>& loops) {
  std::vector<ConnectionLoop*> open;
  for (ConnectionLoop* const loop : loops) {
    const Hold hold(*loop);
    loop->closed_ = true;
    signalEvent(loop->threadEvent_);
    if (!std::exchange(loop->lost_, true)) open.push_back(loop);
  }
  const auto deadline = Clock::now() + kFlushTime;
  std::vector<pollfd> full;
  do {
    full.clear();
    for (ConnectionLoop* const loop : open) {
      if (loop->sendMore()) full.push_back({loop->busDescriptor_, POLLOUT, 0});
    }
  } while (!full.empty() && Clock::now() < deadline &&
           ::poll(full.data(), full.size(), sleepMilliseconds(kNever, deadline)) > 0);
  for (ConnectionLoop* const loop : open) {
    const Hold hold(*loop);
    loop->closeBus();
  }
}

void ConnectionLoop::closeBus() {
  // By hand: while a forked child has a copy of the socket, closing it leaves it in the set.
  control(epoll_, EPOLL_CTL_DEL, busDescriptor_, 0);
  sd_bus_close(bus_.get());
}

void ConnectionLoop::join() {
  const MutexLock lock(mutex_);
  while (threads_ > 0) allEnded_.wait(mutex_);
}

/// Sends what the socket has room for. True when messages remain.
bool ConnectionLoop::sendMore() {
  const Hold hold(*this);
  return hasUnsent() && processBus() >= 0 && hasUnsent();
}

bool ConnectionLoop::hasUnsent() const {
  uint64_t unsent = 0;
  return sd_bus_get_n_queued_write(bus_.get(), &unsent) >= 0 && unsent > 0;
}

// --- The mutex -----------------------------------------------------------------------------------

ConnectionLoop::Hold::Hold(ConnectionLoop& loop) : loop_(loop) {
  loop_.enter();
}

ConnectionLoop::Hold::~Hold() {
  loop_.unlockAndWake();
}

void ConnectionLoop::enter() {
  entering_.fetch_add(1, std::memory_order_relaxed);
  mutex_.lock();
  if (entering_.fetch_sub(1, std::memory_order_relaxed) == 1) entered_.notifyAll();
}

/// A mutex is not fair: a thread that unlocks and relocks at once usually wins again.
void ConnectionLoop::letOthersIn() {
  inARow_ = 0;
  mutex_.unlock();
  std::this_thread::yield();  // to threads that wake up, which are not counted as entering
  mutex_.lock();
  const auto deadline = Clock::now() + kFairWait;
  while (entering_.load(std::memory_order_relaxed) > 0 && entered_.waitUntil(mutex_, deadline)) {
  }
}

void ConnectionLoop::unlockAndWake() {
  std::vector<std::shared_ptr<Waiter>> woken;
  woken.swap(toWake_);
  mutex_.unlock();
  for (const auto& waiter : woken) waiter->wake.notifyOne();
}

// --- Reading -------------------------------------------------------------------------------------

/// sd_bus_process(), negative too when the connection has ended. A connection that a send found
/// broken is left alone: sd-bus would close the socket, which is still in the epoll set.
int ConnectionLoop::processBus() {
  sd_bus* const bus = bus_.get();
  if (sd_bus_is_open(bus) <= 0) return -ECONNRESET;
  const int result = sd_bus_process(bus, nullptr);
  return sd_bus_is_open(bus) > 0 ? result : -ECONNRESET;
}

/// One step of the thread that has the role. Unlocks the mutex in between.
void ConnectionLoop::processOne() {
  const int result = processBus();
  if (result < 0) {
    loseConnection();
  } else {
    unread_ = result > 0;
    ++inARow_;
    // Messages that came along with the end of the handshake lie in sd-bus: no descriptor is
    // readable for them.
    if (!settled_) settled_ = result == 0 && sd_bus_is_ready(bus_.get()) > 0;
    if (!hasUnsent()) listener_.onAllSent();
    checkDeadline();
  }
  if (!toWake_.empty()) {
    unlockAndWake();
    mutex_.lock();
  }
  if (inARow_ >= kFairAfter) letOthersIn();
}

void ConnectionLoop::checkDeadline() {
  const auto deadline = listener_.nextDeadline();
  if (deadline == Clock::time_point::max()) return;
  if (const auto now = Clock::now(); deadline <= now) listener_.onDeadline(now);
}

/// When a sleep must end by itself, in sd-bus's time.
uint64_t ConnectionLoop::timeout() const {
  return std::min(busTimeout(bus_.get()), busTime(listener_.nextDeadline()));
}

/// The poll events to wait for on the connection.
uint32_t ConnectionLoop::interest() const {
  static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT);
  return static_cast<uint32_t>(std::max(sd_bus_get_events(bus_.get()), 0));
}

void ConnectionLoop::afterSend() {
  if (lost_) return;
  const uint32_t events = interest();
  const uint64_t end = timeout();
  if (leader_ == nullptr) {
    watch(events);
    if (end < threadTimeout_) signalEvent(threadEvent_);
  } else if (leaderEvents_ != 0 && (events != leaderEvents_ || end < leaderTimeout_)) {
    signalEvent(leaderEvent_);
  }
}

void ConnectionLoop::complete(const std::shared_ptr<Waiter>& waiter) {
  waiter->done = true;
  if (waiter.get() != leader_) {
    toWake_.push_back(waiter);
  } else if (leaderEvents_ != 0) {
    signalEvent(leaderEvent_);
  }
}

void ConnectionLoop::loseConnection() {
  lost_ = true;
  listener_.onConnectionLost();
  closeBus();
}

// --- The loop's own threads --------------------------------------------------------------------

void ConnectionLoop::startThread() {
  startLibraryThread("zqbus-loop", [self = shared_from_this()] { self->run(); }).detach();
}

void ConnectionLoop::run() {
  const MutexLock lock(mutex_);
  ++awake_;
  while (!closed_ || workWanted_) {
    readAsThread();
    if (workWanted_) {
      work();
    } else if (!mayRead() && !closed_) {
      sleepAsThread();
    }
  }
  --awake_;
  signalEvent(threadEvent_);  // the other thread has to end too
  if (--threads_ == 0) allEnded_.notifyAll();
}

/// Where reading stops during the work, messages wait in the socket and not in this process.
bool ConnectionLoop::mustWorkFirst() const {
  return workWanted_ && whileWorking_ == WhileWorking::Wait;
}

void ConnectionLoop::readAsThread() {
  for (int read = 0; mayRead() && !mustWorkFirst() && read < kFairAfter; ++read) {
    processOne();
    // As a rule one message has come. Asking sd-bus for a second costs more than asking the socket
    // whether it holds bytes. A level-triggered set reports them by itself.
    if (inARow_ == 1 && settled_ && !hungUp_ && mayRead())
      unread_ = edge_ != 0 && holdsBytes(busDescriptor_);
  }
}

void ConnectionLoop::work() {
  workWanted_ = false;
  if (whileWorking_ == WhileWorking::Read) {
    try {
      if (threads_ == 1 && !closed_) {
        startThread();
        threads_ = 2;
      }
    } catch (const std::exception& error) {
      busLog("no thread to read while callbacks run: ", error.what());
    }
    if (mayRead()) signalEvent(threadEvent_);
  }
  --awake_;
  mutex_.unlock();
  work_();
  enter();
  ++awake_;
}

void ConnectionLoop::sleepAsThread() {
  threadTimeout_ = kNever;
  if (leader_ == nullptr && !lost_) {
    watch(interest());
    threadTimeout_ = timeout();
  }
  const int longest = sleepMilliseconds(threadTimeout_, Clock::time_point::max());
  --awake_;
  mutex_.unlock();
  std::array<epoll_event, 2> events;
  const int count = ::epoll_wait(epoll_, events.data(), events.size(), longest);
  mutex_.lock();
  ++awake_;
  inARow_ = 0;
  if (count <= 0) unread_ = true;  // sd-bus is to look at its time-outs
  for (const epoll_event& event : std::span(events).first(std::max(count, 0))) {
    if (event.data.fd == threadEvent_) {
      drainEvent(threadEvent_);
      continue;
    }
    unread_ = true;
    if ((event.events & kHungUp) != 0) hungUp_ = true;
  }
}

/// Sets the events that wake a thread. An event that has happened already wakes it at once.
void ConnectionLoop::watch(uint32_t events) {
  if (events == watched_ || lost_) return;
  control(epoll_, EPOLL_CTL_MOD, busDescriptor_, edge_ | (events == 0 ? 0 : events | EPOLLRDHUP));
  watched_ = events;
}

void ConnectionLoop::requestWork() {
  workWanted_ = true;
  if (awake_ == 0) signalEvent(threadEvent_);
}

// --- Callers that wait ---------------------------------------------------------------------------

ConnectionLoop::Turn::Turn(ConnectionLoop& loop, std::shared_ptr<Waiter> waiter)
    : loop_(loop), waiter_(std::move(waiter)) {
  loop_.enter();
  if (loop_.leader_ != nullptr) {
    loop_.followers_.push_back(waiter_);
    return;
  }
  loop_.leader_ = waiter_.get();
  loop_.watch(0);
}

ConnectionLoop::Turn::~Turn() {
  loop_.leave(waiter_);
  loop_.unlockAndWake();
}

void ConnectionLoop::Turn::waitUntil(Clock::time_point deadline) {
  loop_.mutex_.assertHeld();  // since the constructor, which the analysis does not connect to this
  loop_.waitFor(waiter_, deadline);
}

/// Waits for `waiter` to be done, with the role or without it.
void ConnectionLoop::waitFor(const std::shared_ptr<Waiter>& waiter, Clock::time_point deadline) {
  if (leader_ != waiter.get()) afterSend();
  // A service at the other end of a line may have answered while this thread sent. A bus has to
  // pass the request on first.
  if (sd_bus_is_bus_client(bus_.get()) == 0) unread_ = true;
  while (!waiter->done && !lost_ && Clock::now() < deadline) {
    if (leader_ != waiter.get()) {
      waiter->wake.waitUntil(mutex_, deadline);
    } else if (unread_) {
      processOne();
    } else {
      sleepAsLeader(deadline);
    }
  }
}

void ConnectionLoop::sleepAsLeader(Clock::time_point deadline) {
  leaderEvents_ = interest();
  leaderTimeout_ = timeout();
  const int longest = sleepMilliseconds(leaderTimeout_, deadline);
  pollfd polled[] = {{busDescriptor_, static_cast<short>(leaderEvents_), 0},
                     {leaderEvent_, POLLIN, 0}};
  mutex_.unlock();
  ::poll(polled, 2, longest);
  if (polled[1].revents != 0) drainEvent(leaderEvent_);
  mutex_.lock();
  leaderEvents_ = 0;
  inARow_ = 0;
  unread_ = true;
}

/// Hands the role to a follower that still waits, else back to the loop's threads.
void ConnectionLoop::leave(const std::shared_ptr<Waiter>& waiter) {
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
  unread_ = !settled_;  // once settled, watching reports input that is there
  watch(interest());
  // The threads of the loop may sleep in epoll. No descriptor wakes them for messages that sd-bus
  // has read already, nor for a time-out that is earlier than the end of their sleep.
  if (unread_ || timeout() < threadTimeout_) signalEvent(threadEvent_);
}

}  // namespace zq
