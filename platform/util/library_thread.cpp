#include "platform/util/library_thread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace zq {

std::thread startLibraryThread(const char* name, std::function<void()> run) {
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  // A thread begins with the mask of the one that starts it.
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  std::thread thread;
  try {
    thread = std::thread([name, run = std::move(run)] {
      pthread_setname_np(pthread_self(), name);
      run();
    });
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return thread;
}

}  // namespace zq
