#include "tools/perixctl/terminal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/text/escape.h"

namespace zq::ctl {
namespace {

constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::chrono::milliseconds kFrame{100};
constexpr std::array kSpinner = {"|", "/", "-", "\\"};
constexpr std::string_view kEraseLine = "\r\033[K";
constexpr unsigned kBarWidth = 30;
// Above the numbers that callers hand descriptors over with.
constexpr int kLowestDescriptor = 10;

void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

Terminal::Terminal() : output_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, kLowestDescriptor)) {}

void Terminal::write(const std::string& text) const {
  writeAll(output_.get(), text);
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

bool Terminal::colour() const {
  const char* noColour = std::getenv("NO_COLOR");
  return isatty(output_.get()) == 1 && (noColour == nullptr || *noColour == '\0');
}

WaitIndicator::WaitIndicator() {
  if (isatty(STDERR_FILENO) == 1) {
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
  }
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
    writeAll(STDERR_FILENO, std::string(kEraseLine) + kSpinner[frame % kSpinner.size()] + " " +
                                std::to_string(seconds) + " s " + text_);
    shown = true;
    changed_.wait_for(lock, stop, kFrame, [] { return false; });
  }
  if (shown) writeAll(STDERR_FILENO, kEraseLine);
}

}  // namespace zq::ctl
