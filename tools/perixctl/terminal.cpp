#include "tools/perixctl/terminal.h"

#include <fcntl.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string_view>

#include "platform/text/escape.h"
#include "platform/text/table.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::chrono::milliseconds kFrame{100};
constexpr std::array kSpinner = {"|", "/", "-", "\\"};
constexpr std::string_view kEraseLine = "\r\033[K";
constexpr unsigned kBarWidth = 30;
// Above the numbers that callers hand descriptors over with.
constexpr int kLowestDescriptor = 10;

// False, with errno, when not all of it could be written.
bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

[[noreturn]] void throwUnwritable() {
  throw CommandError(ExitCode::Refused,
                     std::string("the output cannot be written: ") + std::strerror(errno));
}

// A descriptor that the caller closed would be given to the next file or socket that is opened, and
// all output would go there.
void occupyStandardDescriptors() {
  int descriptor;
  do {
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) close(descriptor);
}

std::size_t widthOf(int descriptor) {
  winsize size{};
  return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

// The text as one line that does not reach the last column, where it would begin another.
std::string cutToTerminal(const std::string& text) {
  const std::size_t width = widthOf(STDERR_FILENO);
  TextTable table{.headings = {""}, .showHeadings = false};
  table.width = width > 1 ? width - 1 : width;
  table.rows.push_back({{text}});
  std::string line = table.render();
  if (line.ends_with('\n')) line.pop_back();
  return line;
}

// As it was before it was hidden; set while it is.
bool echoIsOff = false;
termios shownEcho;

}  // namespace

Terminal::Terminal() : output_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, kLowestDescriptor)) {
  occupyStandardDescriptors();
  std::setlocale(LC_CTYPE, "");
  showsUtf8_ = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

void Terminal::write(const std::string& text) const {
  if (!writeAll(output_.get(), text)) throwUnwritable();
}

void Terminal::requireWritable() const {
  if (::write(output_.get(), "", 0) < 0) throwUnwritable();
}

void Terminal::keepForeignOutputAway(bool toStandardError) {
  if (foreignOutputAway_) return;
  foreignOutputAway_ = true;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (toStandardError) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return;
  }
  const OwnedDescriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(null.get(), STDOUT_FILENO);
}

bool Terminal::isInteractive() const {
  return isatty(output_.get()) == 1;
}

bool Terminal::colour() const {
  const char* noColour = std::getenv("NO_COLOR");
  return isInteractive() && (noColour == nullptr || *noColour == '\0');
}

std::size_t Terminal::width() const {
  return isInteractive() ? widthOf(output_.get()) : 0;
}

std::string readHidden(const std::string& prompt) {
  tcgetattr(STDIN_FILENO, &shownEcho);
  termios hidden = shownEcho;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  echoIsOff = true;
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
  writeAll(STDERR_FILENO, prompt);
  std::string line;
  std::getline(std::cin, line);
  restoreEcho();
  writeAll(STDERR_FILENO, "\n");
  return line;
}

void restoreEcho() {
  if (echoIsOff) tcsetattr(STDIN_FILENO, TCSANOW, &shownEcho);
  echoIsOff = false;
}

WaitIndicator::WaitIndicator(bool quiet) {
  if (quiet || isatty(STDERR_FILENO) != 1) return;
  thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void WaitIndicator::progress(unsigned percent, const std::string& text) {
  const unsigned filled = std::min(percent, 100U) * kBarWidth / 100;
  const MutexLock lock(mutex_);
  text_ = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " +
          std::to_string(percent) + " % " + escaped(text);
  changed_.notify_one();
}

void WaitIndicator::end() {
  if (!thread_.joinable()) return;
  thread_.request_stop();
  thread_.join();
}

void WaitIndicator::run(const std::stop_token& stop) {
  MutexLock lock(mutex_);
  changed_.wait_for(lock, stop, kPatience, [this]() REQUIRES(mutex_) { return !text_.empty(); });
  bool shown = false;
  for (std::size_t frame = 0; !stop.stop_requested(); ++frame) {
    const auto elapsed = std::chrono::steady_clock::now() - started_;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
    const std::string line = std::string(kSpinner[frame % kSpinner.size()]) + " " +
                             std::to_string(seconds) + " s " + text_;
    writeAll(STDERR_FILENO, std::string(kEraseLine) + cutToTerminal(line));
    shown = true;
    changed_.wait_for(lock, stop, kFrame, [] { return false; });
  }
  if (shown) writeAll(STDERR_FILENO, kEraseLine);
}

}  // namespace zq::ctl
