#include "tools/perixctl/early_end.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  return signals;
}

OwnedDescriptor takenSignals() {
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return OwnedDescriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

[[noreturn]] void dieOf(int number) {
  std::signal(number, SIG_DFL);
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  raise(number);
  _exit(128 + number);
}

}  // namespace

EarlyEnd::EarlyEnd(std::optional<Seconds> limit, std::function<void()> tellTimeOut)
    : tellTimeOut_(std::move(tellTimeOut)),
      signals_(takenSignals()),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!signals_ || !wake_) {
    throw CommandError(ExitCode::Refused,
                       std::string("cannot watch for signals: ") + std::strerror(errno));
  }
  if (limit) deadline_ = std::chrono::steady_clock::now() + *limit;
  thread_ = std::thread([this] { watch(); });
}

EarlyEnd::~EarlyEnd() {
  {
    const MutexLock lock(mutex_);
    ended_ = true;
  }
  eventfd_write(wake_.get(), 1);
  thread_.join();
}

void EarlyEnd::before(std::function<void()> action) {
  const MutexLock lock(mutex_);
  actions_.push_back(std::move(action));
}

void EarlyEnd::forgetLatest() {
  const MutexLock lock(mutex_);
  actions_.pop_back();
}

void EarlyEnd::passSignalsTo(pid_t child) {
  const MutexLock lock(mutex_);
  child_ = child;
}

void EarlyEnd::leaveSignals() {
  {
    const MutexLock lock(mutex_);
    signalsAreLeft_ = true;
  }
  eventfd_write(wake_.get(), 1);
}

void EarlyEnd::watch() {
  for (;;) {
    const bool signalled = awaitSignal();
    const MutexLock lock(mutex_);
    if (ended_) return;
    if (signalled) takeSignal();
    if (timeIsUp()) endByTimeOut();
  }
}

// Returns upon a signal, then true, and also when the time is up and when something has changed.
bool EarlyEnd::awaitSignal() {
  int signals = signals_.get();
  {
    const MutexLock lock(mutex_);
    if (signalsAreLeft_) signals = -1;
  }
  int timeout = -1;
  if (deadline_) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - std::chrono::steady_clock::now());
    timeout = static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
  }
  std::array<pollfd, 2> sources = {pollfd{signals, POLLIN, 0}, pollfd{wake_.get(), POLLIN, 0}};
  poll(sources.data(), sources.size(), timeout);
  eventfd_t count;
  eventfd_read(wake_.get(), &count);
  return (sources[0].revents & POLLIN) != 0;
}

bool EarlyEnd::timeIsUp() const {
  return deadline_ && std::chrono::steady_clock::now() >= *deadline_;
}

// The lock is kept: the main thread adds no more actions, and does not end meanwhile.
void EarlyEnd::takeSignal() {
  signalfd_siginfo signal{};
  if (signalsAreLeft_ || read(signals_.get(), &signal, sizeof(signal)) != sizeof(signal)) return;
  const int number = static_cast<int>(signal.ssi_signo);
  if (child_ != 0) {
    // The terminal tells the child, too.
    if (signal.ssi_code != SI_KERNEL) kill(child_, number);
    return;
  }
  runActions();
  dieOf(number);
}

void EarlyEnd::runActions() {
  for (; !actions_.empty(); actions_.pop_back()) actions_.back()();
}

void EarlyEnd::endByTimeOut() {
  runActions();
  tellTimeOut_();
  _exit(static_cast<int>(ExitCode::TimedOut));
}

}  // namespace zq::ctl
