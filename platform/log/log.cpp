#include "platform/log/log.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "platform/log/log_file_sink.h"
#include "platform/util/library_thread.h"
#include "platform/util/private_directory.h"

namespace zq {
namespace {

using Level = spdlog::level::level_enum;

// Null until the log has a file.
std::atomic<LogFileSink*> activeSink = nullptr;

// The one sink of the process. Never destroyed: threads of the library may log while the process's
// static objects are being destroyed, and after that.
LogFileSink& theSink() {
  static auto* const sink = new LogFileSink;
  return *sink;
}

// A thread of our own, not spdlog's registry: that is the program's, should it use spdlog too.
void startFlushingEverySecond() {
  startLibraryThread("perix-log", [] {
    for (;;) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      theSink().flush();
    }
  }).detach();
}

void activate() {
  startFlushingEverySecond();
  std::atexit([] { theSink().writeThrough(); });
  pthread_atfork([] { theSink().beforeFork(); }, [] { theSink().afterForkInParent(); },
                 [] { theSink().afterForkInChild(); });
  activeSink.store(&theSink(), std::memory_order_release);
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

bool isControl(unsigned char character) {
  return (character < 0x20) | (character == 0x7f);
}

// Texts come from devices and from desktops: none may begin a line of its own, nor reach the
// terminal of who reads the log as a command.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char character : text) {
    if (character == '\n') {
      result += "\\n";
    } else if (isControl(character)) {
      std::array<char, 5> code;
      std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned>(character));
      result += code.data();
    } else {
      result += character;
    }
  }
  return result;
}

void write(LogFileSink& sink, Level level, const char* tag, std::string_view text) {
  sink.log(spdlog::details::log_msg(tag, level, {text.data(), text.size()}));
  if (level >= Level::err) sink.flush();
}

// Goes on to the end in bytes rather than stopping at the first: so it becomes vector instructions.
bool holdsControl(std::string_view text) {
  unsigned char holds = 0;
  for (const char character : text) holds |= isControl(character);
  return holds != 0;
}

void writeEscaped(LogFileSink& sink, Level level, const char* tag, std::string_view text) {
  if (holdsControl(text)) {
    write(sink, level, tag, escaped(text));
  } else {
    write(sink, level, tag, text);
  }
}

[[gnu::format(printf, 4, 0)]] void print(LogFileSink& sink, Level level, const char* tag,
                                         const char* format, va_list arguments) {
  std::array<char, 512> line;
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  if (length < 0) {
    write(sink, level, tag, "(a message that cannot be formatted)");
  } else if (const auto size = static_cast<std::size_t>(length); size < line.size()) {
    writeEscaped(sink, level, tag, {line.data(), size});
  } else {
    std::string longLine(size, '\0');
    std::vsnprintf(longLine.data(), size + 1, format, again);
    writeEscaped(sink, level, tag, longLine);
  }
  va_end(again);
}

}  // namespace

void feroxLogInit(const char* directory) try {
  if (!directory || !createPrivateDirectory(directory)) return;
  if (!theSink().moveTo(directory, program_invocation_short_name)) return;
  static std::once_flag activated;
  std::call_once(activated, activate);
} catch (const std::exception&) {
  // No memory or no thread for a log: the program goes on without one.
}

void orvaneLogPrint(int /*channel*/, int priority, const char* tag, const char* format, ...) {
  LogFileSink* const sink = activeSink.load(std::memory_order_acquire);
  if (!sink) return;
  const int callersErrno = errno;
  va_list arguments;
  va_start(arguments, format);
  try {
    print(*sink, levelOf(priority), tag, format, arguments);
  } catch (const std::exception&) {
    // No memory for a long line: it is lost.
  }
  va_end(arguments);
  errno = callersErrno;
}

}  // namespace zq
