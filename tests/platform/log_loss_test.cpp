// The log's size when there is no room, and what it says about lines that it lost.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <utility>

#include "log_fixture.h"

namespace {

std::function<void()> beforeNextLock;
std::function<void()> beforeNextWrite;
constexpr std::size_t kEndless = std::numeric_limits<std::size_t>::max();
std::size_t roomOnDisk = kEndless;

}  // namespace

// In place of the C library's.

extern "C" int flock(int descriptor, int operation) noexcept {
  if (beforeNextLock) std::exchange(beforeNextLock, nullptr)();
  return static_cast<int>(::syscall(SYS_flock, descriptor, operation));
}

extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t size) {
  if (beforeNextWrite) std::exchange(beforeNextWrite, nullptr)();
  if (roomOnDisk == 0) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t written = ::syscall(SYS_write, descriptor, bytes, std::min(size, roomOnDisk));
  if (written > 0) roomOnDisk -= static_cast<std::size_t>(written);
  return written;
}

namespace zq {
namespace {

constexpr std::size_t kMiB = 1024 * 1024;
constexpr std::size_t kLines = 1600;  // 12 MiB

void logTooMuch() {
  const std::string filling(8000, 'x');
  for (std::size_t line = 0; line < kLines; ++line) {
    orvaneLogPrint(0, kDebug, "TAG", "%s", filling.c_str());
  }
}

/// The N of "lines lost here: N", 0 for any other line.
std::size_t lostIn(const std::string& line) {
  std::size_t lost = 0;
  std::sscanf(line.c_str(), "%*s %*s %*d %*d warning LOG: lines lost here: %zu", &lost);
  return lost;
}

struct Obstacle {
  const char* reason;
  std::function<void()> begin;
  std::function<void()> end;
};

class FullLog : public Log {
 protected:
  int descriptorOfLog() const {
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code error;
      if (fs::read_symlink(entry, error) == file_) return std::stoi(entry.path().filename());
    }
    return -1;
  }
};

TEST_F(FullLog, KeepsItsSizeAndCountsLostLines) {
  int locked = -1;
  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  const Obstacle obstacles[] = {
      {"a forked child, which shares the log's descriptor, has the lock",
       [&] { ::flock(locked = ::dup(descriptorOfLog()), LOCK_EX); }, [&] { ::close(locked); }},
      {"no file can be renamed",
       [&] { fs::create_directories(older(1)), fs::create_directories(older(2) / "full"); },
       [&] { fs::remove(older(1)), fs::remove_all(older(2)); }},
      {"others may write to the directory",
       [&] { fs::permissions(directory_, fs::perms::others_all, fs::perm_options::add); },
       [&] { fs::permissions(directory_, fs::perms::owner_all); }},
      {"no descriptor is left",
       [&] {
         const rlimit none{0, descriptors.rlim_max};
         ::setrlimit(RLIMIT_NOFILE, &none);
       },
       [&] { ::setrlimit(RLIMIT_NOFILE, &descriptors); }},
  };
  for (const auto& [reason, begin, end] : obstacles) {
    SCOPED_TRACE(reason);
    feroxLogInit(directory_.c_str());
    orvaneLogPrint(0, kError, "TAG", "begin");
    begin();
    logTooMuch();
    EXPECT_LE(fs::file_size(file_), 11 * kMiB);
    EXPECT_GT(fs::file_size(file_), 10 * kMiB);
    EXPECT_FALSE(fs::is_regular_file(older(1)));
    end();
    orvaneLogPrint(0, kError, "TAG", "end");
    const auto lines = linesOf(file_);
    EXPECT_EQ(linesOf(older(1)).size() + lostIn(lines.front()) + lines.size(), kLines + 3);
    EXPECT_TRUE(lines.back().ends_with("end"));
    for (const auto& entry : fs::directory_iterator(directory_)) fs::remove(entry);
  }
}

TEST_F(FullLog, IsRotatedOnceByTwoProcesses) {
  beforeNextLock = [&] {
    fs::rename(file_, older(1));
    std::ofstream(file_) << "another process's line\n";
  };
  logTooMuch();
  orvaneLogPrint(0, kError, "TAG", "end");
  EXPECT_FALSE(beforeNextLock);
  EXPECT_FALSE(fs::exists(older(2)));
  EXPECT_EQ(linesOf(file_).front(), "another process's line");
}

TEST_F(FullLog, FreesOldestFileThatOtherProcessHasOpen) {
  std::ofstream(older(2)) << "old";
  const int oldest = ::open(older(2).c_str(), O_RDONLY | O_CLOEXEC);
  logTooMuch();
  EXPECT_EQ(::lseek(oldest, 0, SEEK_END), 0);
  ::close(oldest);
}

TEST_F(FullLog, CountsLinesInRemovedFile) {
  rlimit usual{};
  ::getrlimit(RLIMIT_FSIZE, &usual);
  const rlimit page{4096, usual.rlim_max};
  const Obstacle obstacles[] = {
      {"a pipe has the file's name",
       [&] { fs::remove(file_), ::mkfifo(file_.c_str(), S_IRUSR | S_IWUSR); },
       [&] { fs::remove(file_); }},
      {"the disk is full in the middle of a line", [] { roomOnDisk = 20; },
       [] { roomOnDisk = kEndless; }},
      {"another process fills the file up to this one's limit",
       [&] {
         ::setrlimit(RLIMIT_FSIZE, &page);
         beforeNextWrite = [&] {
           const std::string rest(page.rlim_cur - fs::file_size(file_), '\n');
           std::ofstream(file_, std::ios::app) << rest;
         };
       },
       [&] { ::setrlimit(RLIMIT_FSIZE, &usual); }},
  };
  for (const auto& [reason, begin, end] : obstacles) {
    SCOPED_TRACE(reason);
    begin();
    orvaneLogPrint(0, kError, "TAG", "lost");
    end();
    orvaneLogPrint(0, kError, "TAG", "end");
    const auto lines = linesOf(file_);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(lines.back().ends_with("end"));
    EXPECT_EQ(lostIn(lines[lines.size() - 2]), 1u) << lines[lines.size() - 2];
  }
}

TEST_F(FullLog, LeavesReusedDescriptorAlone) {
  const fs::path theirs = directory_ / "theirs";
  const int opened = ::open(theirs.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  const int taken = descriptorOfLog();
  ASSERT_EQ(::dup2(opened, taken), taken);
  orvaneLogPrint(0, kError, "TAG", "text");
  EXPECT_TRUE(lastLine().ends_with("text"));
  EXPECT_EQ(fs::file_size(theirs), 0u);
  EXPECT_GE(::fcntl(taken, F_GETFD), 0);

  ::close(descriptorOfLog());  // which is the next number that the log gets
  orvaneLogPrint(0, kError, "TAG", "after it was closed");
  EXPECT_TRUE(lastLine().ends_with("closed"));
  ::close(opened);
}

}  // namespace
}  // namespace zq
