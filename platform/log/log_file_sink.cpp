#include "platform/log/log_file_sink.h"

#include <fcntl.h>
#include <spdlog/pattern_formatter.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <utility>

namespace zq {
namespace {

constexpr off_t kFullAt = 10 * 1024 * 1024;
constexpr int kOlderFiles = 2;
constexpr std::size_t kWriteAt = 32 * 1024;

// Date and time to the second as one flag of the pattern, which is formatted once a second; as six
// flags they are a third of the cost of a line.
class SecondFlag final : public spdlog::custom_flag_formatter {
 public:
  // spdlog fills in the time only for patterns with time flags of its own.
  void format(const spdlog::details::log_msg& message, const std::tm& /*unset*/,
              spdlog::memory_buf_t& line) override {
    const std::time_t second = std::chrono::system_clock::to_time_t(message.time);
    if (second != second_) {
      std::tm local = {};
      ::localtime_r(&second, &local);
      std::strftime(text_.data(), text_.size(), "%Y-%m-%d %H:%M:%S", &local);
      second_ = second;
    }
    line.append(text_.data(), text_.data() + text_.size() - 1);
  }

  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<SecondFlag>();
  }

 private:
  std::array<char, sizeof("2000-01-01 00:00:00")> text_ = {};
  std::time_t second_ = 0;
};

// The process id stands in the pattern as a text: asking for it costs a system call per line.
std::unique_ptr<spdlog::formatter> lineFormatter() {
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  formatter->add_flag<SecondFlag>('*').set_pattern("%*.%e " + std::to_string(::getpid()) +
                                                   " %t %l %n: %v");
  return formatter;
}

int openForAppend(const std::filesystem::path& file) {
  return ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
}

}  // namespace

LogFileSink::LogFileSink() {
  pending_.reserve(2 * kWriteAt);
  set_formatter(lineFormatter());
}

LogFileSink::~LogFileSink() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool LogFileSink::moveTo(std::filesystem::path directory, std::string name) {
  const std::lock_guard lock(mutex_);
  if (descriptor_ >= 0 && directory == directory_ && name == name_) return true;
  const int opened = openForAppend(directory / (name + ".log"));
  if (opened < 0) return false;
  if (descriptor_ >= 0) {
    writeOut();
    ::close(descriptor_);
  }
  descriptor_ = opened;
  directory_ = std::move(directory);
  name_ = std::move(name);
  return true;
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

/// Allocates nothing: another thread of the parent's may hold the allocator, and many a child only
/// calls exec.
void LogFileSink::afterForkInChild() {
  writesThrough_ = true;
  namesParent_ = true;
  mutex_.unlock();
}

void LogFileSink::sink_it_(const spdlog::details::log_msg& message) {
  if (std::exchange(namesParent_, false)) set_formatter_(lineFormatter());
  formatter_->format(message, pending_);
  if (writesThrough_ || pending_.size() >= kWriteAt) writeOut();
}

void LogFileSink::flush_() {
  writeOut();
}

std::filesystem::path LogFileSink::file(int age) const {
  return directory_ / (age == 0 ? name_ + ".log" : name_ + '.' + std::to_string(age) + ".log");
}

// Whether the open file still has the log's name: nobody rotated or removed it.
bool LogFileSink::isCurrent() const {
  struct stat named {};
  struct stat opened {};
  return ::stat(file(0).c_str(), &named) == 0 && ::fstat(descriptor_, &opened) == 0 &&
         named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
}

bool LogFileSink::isFull() const {
  struct stat opened {};
  return ::fstat(descriptor_, &opened) == 0 &&
         opened.st_size + static_cast<off_t>(pending_.size()) > kFullAt;
}

// Makes room for a new file, unless another process has done so while this one waited for the lock.
// The oldest goes by its own, since some file systems write a file out that is renamed onto
// another.
void LogFileSink::shiftFiles() const {
  if (!isCurrent()) return;
  ::unlink(file(kOlderFiles).c_str());
  for (int age = kOlderFiles; age > 0; --age) ::rename(file(age - 1).c_str(), file(age).c_str());
}

void LogFileSink::startNewFile() {
  ::flock(descriptor_, LOCK_EX);
  shiftFiles();
  if (const int opened = openForAppend(file(0)); opened >= 0) {
    ::close(descriptor_);
    descriptor_ = opened;
  } else {
    ::flock(descriptor_, LOCK_UN);
  }
}

void LogFileSink::writeOut() {
  if (pending_.size() == 0) return;
  if (!isCurrent() || isFull()) startNewFile();
  const char* next = pending_.data();
  const char* const end = next + pending_.size();
  while (next < end) {
    const ssize_t written = ::write(descriptor_, next, static_cast<std::size_t>(end - next));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    next += written;
  }
  pending_.clear();
}

}  // namespace zq
