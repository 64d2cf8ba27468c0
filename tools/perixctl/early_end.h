// The end of the process before the end of its command: upon a signal, and when its time is up.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "platform/util/mutex.h"
#include "tools/embedded/child_process.h"

namespace zq::ctl {

/// Takes SIGINT, SIGTERM and SIGHUP for this process: actions clean up, then the signal ends it.
/// Make it before any thread, so that no other thread takes the signals.
class EarlyEnd {
 public:
  using Seconds = std::chrono::seconds;

  /// `limit` is the longest time that the process may take; it ends with ExitCode::TimedOut then,
  /// after the actions and after `tellTimeOut`.
  EarlyEnd(std::optional<Seconds> limit, std::function<void()> tellTimeOut);
  EarlyEnd(const EarlyEnd&) = delete;
  EarlyEnd& operator=(const EarlyEnd&) = delete;
  ~EarlyEnd();

  /// Runs `action` before an early end, on a thread of its own, the latest first. An action must
  /// not wait for the main thread.
  void before(std::function<void()> action);
  /// Takes back the latest action, and waits for it when it runs.
  void forgetLatest();

  /// From now on the signals go to `child`, which this process waits for, and end nothing here.
  void passSignalsTo(pid_t child);
  /// From now on the signals stay blocked and untaken: the command reads them itself.
  void leaveSignals();

 private:
  void watch();
  bool awaitSignal();
  bool timeIsUp() const;
  void takeSignal() REQUIRES(mutex_);
  void runActions() REQUIRES(mutex_);
  [[noreturn]] void endByTimeOut() REQUIRES(mutex_);

  std::optional<std::chrono::steady_clock::time_point> deadline_;
  std::function<void()> tellTimeOut_;
  OwnedDescriptor signals_;
  OwnedDescriptor wake_;
  Mutex mutex_;
  std::vector<std::function<void()>> actions_ GUARDED_BY(mutex_);
  pid_t child_ GUARDED_BY(mutex_) = 0;
  bool signalsAreLeft_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::thread thread_;  ///< last: its thread uses the others
};

}  // namespace zq::ctl
