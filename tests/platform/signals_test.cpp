#include "platform/util/signals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "platform/util/library_thread.h"

namespace zq {
namespace {

bool isBlocked(int signal) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

TEST(LibraryThread, HandlesItsOwnFaultsAlone) {
  startLibraryThread("test", [] {
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_FALSE(isBlocked(SIGSEGV));
  }).join();
  EXPECT_FALSE(isBlocked(SIGTERM));

  pthread_attr_t usual;
  pthread_attr_t impossible;
  pthread_getattr_default_np(&usual);
  pthread_getattr_default_np(&impossible);
  pthread_attr_setstacksize(&impossible, std::size_t{1} << 46);
  pthread_setattr_default_np(&impossible);
  EXPECT_THROW(startLibraryThread("test", [] {}), std::system_error);
  pthread_setattr_default_np(&usual);
  EXPECT_FALSE(isBlocked(SIGTERM));
}

TEST(WriteWithoutSignal, FailsInsteadOfRaisingSignal) {
  int pipe[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  ::close(pipe[0]);
  std::FILE* const file = std::tmpfile();
  rlimit usual{};
  ::getrlimit(RLIMIT_FSIZE, &usual);
  const rlimit none{0, usual.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &none);
  const struct {
    int descriptor;
    int error;
  } writes[] = {{pipe[1], EPIPE}, {::fileno(file), EFBIG}};
  sigset_t programs;
  sigemptyset(&programs);
  sigaddset(&programs, SIGPIPE);
  sigaddset(&programs, SIGXFSZ);
  for (const bool pending : {false, true}) {
    for (const auto& [descriptor, error] : writes) {
      EXPECT_EQ(writeWithoutSignal(descriptor, "text"), -1);
      EXPECT_EQ(errno, error);
    }
    sigset_t left;
    sigpending(&left);
    EXPECT_EQ(sigismember(&left, SIGPIPE), pending ? 1 : 0);
    EXPECT_EQ(sigismember(&left, SIGXFSZ), pending ? 1 : 0);
    pthread_sigmask(SIG_BLOCK, &programs, nullptr);
    if (!pending) {
      for (const int signal : {SIGPIPE, SIGXFSZ}) pthread_kill(pthread_self(), signal);
    }
  }
  constexpr timespec kNoWait = {};
  while (sigtimedwait(&programs, nullptr, &kNoWait) > 0) {
  }
  pthread_sigmask(SIG_UNBLOCK, &programs, nullptr);
  ::setrlimit(RLIMIT_FSIZE, &usual);
  ::close(pipe[1]);
  std::fclose(file);
}

}  // namespace
}  // namespace zq
