#include "platform/log/log_file_sink.h"

#include <spdlog/pattern_formatter.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

namespace zq {
namespace {

constexpr std::size_t kWriteAt = 32 * 1024;

// Local time less UTC. Used under the sink's mutex.
std::chrono::seconds utcOffset{0};

void askForUtcOffset(std::time_t second) {
  std::tm local = {};
  ::localtime_r(&second, &local);
  utcOffset = std::chrono::seconds(local.tm_gmtoff);
}

// Date and time to the second as one flag of the pattern, which is formatted once a second; six
// flags would be a third of the cost of a line.
class SecondFlag final : public spdlog::custom_flag_formatter {
 public:
  // A forked child keeps the offset that it had: the C library's lock on the time zone may be held
  // by a thread that the child does not have, and strftime takes it, too.
  explicit SecondFlag(bool asksForOffset) : asksForOffset_(asksForOffset) {}

  // spdlog fills in the time only for patterns with time flags of its own.
  void format(const spdlog::details::log_msg& message, const std::tm& /*unset*/,
              spdlog::memory_buf_t& line) override {
    const auto second = std::chrono::floor<std::chrono::seconds>(message.time);
    if (second != second_) {
      if (asksForOffset_) askForUtcOffset(std::chrono::system_clock::to_time_t(second));
      setText(second + utcOffset);
      second_ = second;
    }
    line.append(text_.data(), text_.data() + kLength);
  }

  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<SecondFlag>(asksForOffset_);
  }

 private:
  static constexpr std::size_t kLength = std::char_traits<char>::length("2000-01-01 00:00:00");

  void setText(std::chrono::sys_seconds local) {
    const auto day = std::chrono::floor<std::chrono::days>(local);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(local - day);
    std::snprintf(text_.data(), text_.size(), "%04d-%02u-%02u %02d:%02d:%02d",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                  static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
  }

  const bool asksForOffset_;
  std::array<char, 80> text_ = {};  // for the largest values of the types
  std::chrono::sys_seconds second_;
};

// The process id stands in the pattern as a text: asking for it costs a system call per line.
std::unique_ptr<spdlog::formatter> lineFormatter(bool asksForOffset) {
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  formatter->add_flag<SecondFlag>('*', asksForOffset)
      .set_pattern("%*.%e " + std::to_string(::getpid()) + " %t %l %n: %v");
  return formatter;
}

}  // namespace

LogFileSink::LogFileSink() {
  // The longest line, all of it escaped, is shorter than twice that: appending never allocates.
  pending_.reserve(3 * kWriteAt);
  set_formatter(lineFormatter(true));
  askForUtcOffset(std::time(nullptr));  // for a child that logs before this process
}

const char* LogFileSink::moveTo(const std::filesystem::path& directory, const std::string& name) {
  const std::lock_guard lock(mutex_);
  writeOut();
  return file_.moveTo(directory, name);
}

void LogFileSink::awaitLine() {
  {
    const std::lock_guard lock(mutex_);
    if (pending_.size() > 0) return;
    awaitsLine_ = 1;
  }
  awaitsLine_.wait(1);
}

void LogFileSink::writeThrough() {
  const std::lock_guard lock(mutex_);
  writesThrough_ = true;
  writeOut();
}

void LogFileSink::beforeFork() {
  mutex_.lock();
  writeOut();
}

void LogFileSink::afterForkInParent() {
  mutex_.unlock();
}

/// Allocates nothing: another thread of the parent may hold the allocator, and many children only
/// call exec.
void LogFileSink::afterForkInChild() {
  writesThrough_ = true;
  namesParent_ = true;
  lost_ = 0;
  mutex_.unlock();
}

void LogFileSink::sink_it_(const spdlog::details::log_msg& message) {
  if (std::exchange(namesParent_, false)) set_formatter_(lineFormatter(false));
  formatter_->format(message, pending_);
  if (writesThrough_ || pending_.size() >= kWriteAt) {
    writeOut();
  } else if (awaitsLine_.load(std::memory_order_relaxed) != 0) {
    awaitsLine_ = 0;
    awaitsLine_.notify_one();
  }
}

void LogFileSink::flush_() {
  writeOut();
}

void LogFileSink::writeOut() noexcept {
  if (lost_ > 0) tellLoss();
  if (pending_.size() > 0) append(pending_);
  pending_.clear();
}

void LogFileSink::tellLoss() noexcept {
  std::array<char, 64> text;
  const int length = std::snprintf(text.data(), text.size(), "lines lost here: %zu", lost_);
  spdlog::memory_buf_t line;
  if (endsInLine_) line.push_back('\n');
  formatter_->format({"LOG", spdlog::level::warn, {text.data(), static_cast<std::size_t>(length)}},
                     line);
  const std::size_t lost = std::exchange(lost_, 0);
  append(line);
  if (lost_ > 0) lost_ = lost;
}

void LogFileSink::append(const spdlog::memory_buf_t& lines) noexcept {
  const std::size_t taken = file_.append({lines.data(), lines.size()});
  lost_ += static_cast<std::size_t>(std::count(lines.begin() + taken, lines.end(), '\n'));
  if (taken > 0) endsInLine_ = lines[taken - 1] != '\n';
}

}  // namespace zq
