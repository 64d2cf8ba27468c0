#include "platform/util/signals.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace zq {

BlockedSignals::BlockedSignals(const sigset_t& signals) {
  pthread_sigmask(SIG_BLOCK, &signals, &previous_);
}

BlockedSignals::~BlockedSignals() {
  pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

NoCancellation::NoCancellation() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_);
}

NoCancellation::~NoCancellation() {
  pthread_setcancelstate(previous_, nullptr);
}

ssize_t writeWithoutSignal(int descriptor, std::string_view bytes) {
  sigset_t raised;
  sigemptyset(&raised);
  sigaddset(&raised, SIGXFSZ);
  sigaddset(&raised, SIGPIPE);
  const BlockedSignals blocked(raised);
  sigset_t pending;
  sigpending(&pending);
  const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
  if (written >= 0 || (errno != EFBIG && errno != EPIPE)) return written;
  const int error = errno;
  // A signal that was pending before the call is the program's.
  if (sigismember(&pending, SIGXFSZ)) sigdelset(&raised, SIGXFSZ);
  if (sigismember(&pending, SIGPIPE)) sigdelset(&raised, SIGPIPE);
  constexpr timespec kNoWait = {};
  sigtimedwait(&raised, nullptr, &kNoWait);
  errno = error;
  return written;
}

}  // namespace zq
