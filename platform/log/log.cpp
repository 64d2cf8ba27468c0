#include "platform/log/log.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "platform/log/log_file_sink.h"
#include "platform/log/log_text.h"
#include "platform/text/escape.h"
#include "platform/util/library_thread.h"
#include "platform/util/private_directory.h"
#include "platform/util/signals.h"

namespace zq {
namespace {

using Level = spdlog::level::level_enum;

constexpr std::chrono::milliseconds kFlushAfter{900};
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLongestRefusal = 1024;

// Held by feroxLogInit and around a fork: a child gets either no log or a complete log.
std::mutex beginMutex;

// Null until the log has a file.
std::atomic<LogFileSink*> activeSink = nullptr;

// The one sink of the process. Never destroyed: threads of the library may log while the process's
// static objects are being destroyed, and after that.
LogFileSink& theSink() {
  static auto* const sink = new LogFileSink;
  return *sink;
}

void inSink(void (LogFileSink::*step)()) {
  if (LogFileSink* const sink = activeSink.load(std::memory_order_acquire)) (sink->*step)();
}

void beforeFork() {
  beginMutex.lock();
  inSink(&LogFileSink::beforeFork);
}

void afterForkInParent() {
  inSink(&LogFileSink::afterForkInParent);
  beginMutex.unlock();
}

void afterForkInChild() {
  inSink(&LogFileSink::afterForkInChild);
  beginMutex.unlock();
}

[[maybe_unused]] const int registered =
    ::pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);

// A thread of our own, not spdlog's registry: the program may use that itself. It
// sleeps while nothing is logged.
void startFlushing() {
  startLibraryThread("perix-log", [] {
    for (;;) {
      theSink().awaitLine();
      std::this_thread::sleep_for(kFlushAfter);
      theSink().flush();
    }
  }).detach();
}

// Null when there is a log in `directory` now, else the reason why not.
const char* begin(const char* directory) {
  const std::filesystem::path path = std::filesystem::absolute(directory);
  if (!createPrivateDirectory(path)) return "the directory cannot be created";
  if (const char* refusal = theSink().moveTo(path, program_invocation_short_name)) return refusal;
  if (activeSink.load(std::memory_order_relaxed)) return nullptr;
  startFlushing();
  std::atexit([] { theSink().writeThrough(); });
  activeSink.store(&theSink(), std::memory_order_release);
  return nullptr;
}

// Does nothing when standard error is closed or would block.
void sayOnce(std::string_view directory, const char* refusal) noexcept try {
  static std::atomic<bool> said = false;
  if (said.exchange(true)) return;
  const std::string program(program_invocation_short_name);
  std::string line = program.substr(0, kLongestName) + ": no log file: " + refusal + ": ";
  line.append(directory).append("/").append(program).append(".log");
  line = escaped(line).substr(0, kLongestRefusal) + '\n';
  pollfd standardError{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&standardError, 1, 0) == 1 && standardError.revents == POLLOUT) {
    writeWithoutSignal(STDERR_FILENO, line);
  }
} catch (const std::exception&) {
  // No memory for the line.
}

Level levelOf(int priority) {
  switch (priority) {
    case 7:
      return Level::err;
    case 6:
      return Level::warn;
    case 5:
      return Level::debug;
    case 2:
      return Level::trace;
    default:
      return Level::info;
  }
}

void write(LogFileSink& sink, Level level, std::string_view tag, std::string_view text) {
  sink.log({{tag.data(), tag.size()}, level, {text.data(), text.size()}});
  if (level >= Level::err) sink.flush();
}

void writeEscaped(LogFileSink& sink, Level level, std::string_view tag, std::string_view text) {
  if (mayNeedEscape(text)) {
    write(sink, level, tag, escaped(text));
  } else {
    write(sink, level, tag, text);
  }
}

[[gnu::format(printf, 4, 0)]] void print(LogFileSink& sink, Level level, std::string_view tag,
                                         const char* format, va_list arguments) {
  std::array<char, 512> line;
  va_list again;
  va_copy(again, arguments);
  const int length = format ? std::vsnprintf(line.data(), line.size(), format, arguments) : -1;
  if (length < 0) {
    writeEscaped(sink, level, tag, "(a message that cannot be formatted)");
  } else if (const auto size = static_cast<std::size_t>(length); size < line.size()) {
    writeEscaped(sink, level, tag, {line.data(), size});
  } else {
    writeEscaped(sink, level, tag, formattedAndCut(size, format, again));
  }
  va_end(again);
}

}  // namespace

void feroxLogInit(const char* directory) {
  if (!directory) return;
  const NoCancellation guard;
  const std::lock_guard lock(beginMutex);
  try {
    if (const char* refusal = begin(directory)) sayOnce(directory, refusal);
  } catch (const std::exception& error) {
    // No memory or no thread for a log: the program goes on without one.
    sayOnce(directory, error.what());
  }
}

void orvaneLogPrint(int /*channel*/, int priority, const char* tag, const char* format, ...) {
  LogFileSink* const sink = activeSink.load(std::memory_order_acquire);
  if (!sink) return;
  const int callersErrno = errno;
  va_list arguments;
  va_start(arguments, format);
  try {
    const std::string_view shortTag(tag ? tag : "", tag ? ::strnlen(tag, kLongestName) : 0);
    print(*sink, levelOf(priority), shortTag, format, arguments);
  } catch (const std::exception&) {
    // No memory for a long line: it is lost.
  }
  va_end(arguments);
  errno = callersErrno;
}

}  // namespace zq
