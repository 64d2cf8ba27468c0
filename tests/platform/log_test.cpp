#include "platform/log/log.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <thread>

#include "log_fixture.h"

namespace zq {
namespace {

constexpr std::time_t kNoon = 43200;

TEST_F(Log, HoldsErrorAtOnce) {
  orvaneLogPrint(0, kError, "TAG", "%s %d", "text", 7);
  const std::string line = lastLine();
  std::tm time = {};
  const char* const rest = ::strptime(line.c_str(), "%Y-%m-%d %H:%M:%S.", &time);
  ASSERT_NE(rest, nullptr) << line;
  time.tm_isdst = -1;
  EXPECT_NEAR(std::difftime(std::mktime(&time), std::time(nullptr)), 0, 2) << line;
  int process = 0;
  int thread = 0;
  int length = 0;
  std::sscanf(rest, "%*3d %d %d error TAG: text 7%n", &process, &thread, &length);
  EXPECT_EQ(rest[length], '\0') << line;
  EXPECT_EQ(process, ::getpid());
  EXPECT_EQ(thread, ::gettid());
}

// Whether the thread that flushes is in a futex call that nothing but a line ends: without
// time-out.
bool flusherSleeps() {
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    if (linesOf(task.path() / "comm") != std::vector<std::string>{"perix-log"}) continue;
    std::ifstream call(task.path() / "syscall");
    std::string number;
    std::string timeout;
    call >> number >> timeout >> timeout >> timeout >> timeout;
    return number == std::to_string(SYS_futex) && timeout == "0x0";
  }
  return false;
}

TEST_F(Log, HoldsOtherLinesWithinASecond) {
  const int watch = ::inotify_init1(IN_CLOEXEC);
  ASSERT_GE(::inotify_add_watch(watch, directory_.c_str(), IN_MODIFY), 0);
  for (const char* text : {"first", "after a sleep"}) {
    orvaneLogPrint(0, kDebug, "TAG", "%s", text);
    pollfd modified{watch, POLLIN, 0};
    EXPECT_EQ(::poll(&modified, 1, 5000), 1);
    std::array<char, 4096> event;
    EXPECT_GT(::read(watch, event.data(), event.size()), 0);
    EXPECT_TRUE(lastLine().ends_with(text));
    const std::time_t deadline = std::time(nullptr) + 10;
    while (!flusherSleeps() && std::time(nullptr) < deadline) std::this_thread::yield();
    EXPECT_TRUE(flusherSleeps());
  }
  ::close(watch);
}

TEST_F(Log, EscapesAndCutsTexts) {
  const std::map<std::string, std::string> escapes = {
      {"name\n2026-01-01 forged", R"(name\n2026-01-01 forged)"},
      {"\x1b[31mred\x7f\t", R"(\x1b[31mred\x7f\x09)"},
      {"Tür \\n", "Tür \\n"},
      {std::string(511, 'x'), std::string(511, 'x')},
      {std::string(512, 'y'), std::string(512, 'y')},
      {std::string(8191, 'x') + '\n', std::string(8191, 'x') + "\\n"},
      {std::string(8193, 'x'), std::string(8192, 'x') + "... (1 bytes left out)"},
      {std::string(8190, 'x') + "€uro", std::string(8190, 'x') + "... (6 bytes left out)"},
  };
  for (const auto& [text, written] : escapes) {
    orvaneLogPrint(0, kError, "TAG", "%s", text.c_str());
    EXPECT_TRUE(lastLine().ends_with("TAG: " + written)) << lastLine().substr(0, 200);
  }
  orvaneLogPrint(0, kError, nullptr, nullptr);
  EXPECT_TRUE(lastLine().ends_with(" error : (a message that cannot be formatted)"));
  EXPECT_EQ(linesOf(file_).size(), escapes.size() + 1);
}

TEST_F(Log, OutlivesLossOfItsFileInCancelledThread) {
  orvaneLogPrint(0, kError, "TAG", "old");
  int error = 0;
  std::thread([&] {
    pthread_cancel(pthread_self());
    for (const fs::path& place : {file_ / "below a file", directory_ / "other", directory_}) {
      feroxLogInit(place.c_str());
    }
    feroxLogInit(nullptr);
    fs::remove(file_);
    errno = EDOM;
    orvaneLogPrint(0, kError, "TAG", "new");
    error = errno;
  }).join();
  EXPECT_EQ(error, EDOM);
  EXPECT_EQ(linesOf(file_).size(), 1u);
  EXPECT_TRUE(lastLine().ends_with("new"));
}

// While another thread has the C library's lock on the time zone, mostly.
TEST_F(Log, GoesOnInForkedChildWithoutRepetition) {
  constexpr int kChildren = 20;
  const std::jthread clock([](const std::stop_token& stop) {
    for (std::tm local; !stop.stop_requested(); ::localtime_r(&kNoon, &local)) {
    }
  });
  orvaneLogPrint(0, kDebug, "TAG", "parent");
  for (int number = 0; number < kChildren; ++number) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(20);
      orvaneLogPrint(0, kDebug, "TAG", "child");
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    EXPECT_NE(lastLine().find(std::to_string(child)), std::string::npos);
  }
  EXPECT_EQ(linesOf(file_).size(), kChildren + 1u);
}

TEST_F(Log, LosesNoLineWhileItMoves) {
  constexpr int kLines = 2000;
  const fs::path other = directory_ / "other";
  {
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < 3; ++writer) {
      writers.emplace_back([] {
        for (int line = 0; line < kLines; ++line) orvaneLogPrint(0, kDebug, "TAG", "%d", line);
      });
    }
    for (int move = 0; move < 50; ++move) {
      feroxLogInit((move % 2 ? directory_ : other).c_str());
    }
  }
  orvaneLogPrint(0, kError, "TAG", "last");
  EXPECT_EQ(linesOf(file_).size() + linesOf(other / file_.filename()).size(), 3u * kLines + 1);
}

// Also: nothing before the log begins, everything at the end of a process, modes of what is made.
TEST_F(Log, OfSeveralProcessesStaysWholeThroughRotation) {
  constexpr int kLines = 40000;
  const std::string writer =
      std::string(LOG_WRITER) + ' ' + directory_.string() + "/log " + std::to_string(kLines);
  ASSERT_EQ(
      std::system(("exec > /dev/null; umask 0; " + writer + " & " + writer + " & wait").c_str()),
      0);

  EXPECT_EQ(fs::status(directory_ / "log").permissions(), fs::perms::owner_all);
  std::map<int, int> linesBy;
  for (const char* name : {"log_writer.1.log", "log_writer.log"}) {
    const fs::path file = directory_ / "log" / name;
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    for (const auto& line : linesOf(file)) {
      int process = 0;
      int number = -1;
      std::sscanf(line.c_str(), "%*s %*s %d %*d debug TEST: line %d", &process, &number);
      ASSERT_EQ(number, linesBy[process]++) << line;
      ASSERT_TRUE(line.ends_with("xx end")) << line;
    }
  }
  EXPECT_EQ(linesBy.size(), 2u);
  for (const auto& [process, lines] : linesBy) EXPECT_EQ(lines, kLines) << process;
}

// A shell command in the directory that has "log", the log's directory; the refusal on standard
// error, "" where there is a log.
const std::pair<const char*, const char*> kPlaces[] = {
    {":", ""},
    {"mv log real; ln -s real log", ""},
    {"exec >&- <&-", ""},
    {"ulimit -f 400", ""},
    {"chmod 777 log", "other users may write to the directory"},
    {"chmod 720 log", "other users may write to the directory"},
    {"chown 1 log", "the directory belongs to another user"},
    {"rmdir log; : > log", "the directory cannot be created"},
    {"mkfifo log/log_writer.log", "No such device or address"},
    {"mkfifo log/log_writer.log; exec 9<>log/log_writer.log", "it is not a regular file"},
    {": > log/log_writer.log; chown 1 log/log_writer.log", "it belongs to another user"},
    {": > other; ln other log/log_writer.log", "it has another name, too"},
    {"ln -s ../elsewhere log/log_writer.log", "Too many levels of symbolic links"},
};

TEST_F(Log, IsWrittenOrRefusedInOneLine) {
  for (const auto& [made, refusal] : kPlaces) {
    SCOPED_TRACE(made);
    if (std::strstr(made, "chown") != nullptr && ::geteuid() != 0) continue;
    const fs::path place = directory_ / "place";
    const std::string script = "mkdir " + place.string() + " && cd " + place.string() +
                               " && exec > printed && mkdir -m 700 log && { " + made +
                               "; } && exec " LOG_WRITER " $PWD/log 3000 2>>said";
    ASSERT_EQ(std::system(script.c_str()), 0);
    const auto said = linesOf(place / "said");
    const fs::path file = place / "log/log_writer.log";
    if (*refusal == '\0') {
      EXPECT_TRUE(said.empty()) << said.front();
      EXPECT_GT(fs::file_size(file), 0u);
      for (const auto& line : linesOf(file)) EXPECT_TRUE(line.ends_with("xx end")) << line;
    } else {
      ASSERT_EQ(said.size(), 1u);
      EXPECT_NE(said[0].find(std::string("log_writer: no log file: ") + refusal), std::string::npos)
          << said[0];
      EXPECT_TRUE(!fs::is_regular_file(file) || fs::file_size(file) == 0);
    }
    EXPECT_FALSE(fs::exists(place / "elsewhere"));
    fs::remove_all(place);
  }
}

}  // namespace
}  // namespace zq
