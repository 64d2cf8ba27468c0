#include "platform/util/util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/util/library_thread.h"
#include "platform/util/signals.h"

namespace zq {
namespace {

namespace fs = std::filesystem;

std::string pathIn(const fs::path& stateHome) {
  ::setenv("XDG_STATE_HOME", stateHome.c_str(), 1);
  std::string path = "left over";
  const bool found = GetAppDataPath(path);
  EXPECT_EQ(found, !path.empty());
  return path;
}

TEST(AppDataPath, IsPrivateInStateHomeElseInHome) {
  std::string pattern = fs::temp_directory_path() / "perix-path-XXXXXX";
  const fs::path root = ::mkdtemp(pattern.data());
  ::setenv("HOME", (root / "home").c_str(), 1);
  const mode_t mask = ::umask(0);
  EXPECT_EQ(pathIn(root / "a/b"), root / "a/b/perix");
  ::umask(mask);
  for (const char* made : {"a", "a/b", "a/b/perix"}) {
    EXPECT_EQ(fs::status(root / made).permissions(), fs::perms::owner_all) << made;
  }
  EXPECT_EQ(pathIn(""), root / "home/.local/state/perix");
  EXPECT_EQ(pathIn("relative/path"), root / "home/.local/state/perix");

  std::ofstream(root / "file") << "not a directory";
  EXPECT_EQ(pathIn(root / "file/state"), "");
  ::unsetenv("HOME");
  EXPECT_EQ(pathIn(""), "");
  fs::remove_all(root);
}

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
  const std::pair<int, int> writes[] = {{pipe[1], EPIPE}, {::fileno(file), EFBIG}};
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
