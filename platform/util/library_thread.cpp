#include "platform/util/library_thread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

#include "platform/util/signals.h"

namespace zq {
namespace {

// All signals but those that a fault raises in the thread itself. The program's callbacks run on
// these threads, and a fault whose signal is blocked ends the process past the program's handler.
sigset_t programsSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
    sigdelset(&signals, fault);
  }
  return signals;
}

}  // namespace

std::thread startLibraryThread(const char* name, std::function<void()> run) {
  // A thread begins with the mask of the one that starts it.
  const BlockedSignals blocked(programsSignals());
  return std::thread([name, run = std::move(run)] {
    pthread_setname_np(pthread_self(), name);
    run();
  });
}

}  // namespace zq
