#include "trace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bus_log.h"
#include "platform/util/library_thread.h"
#include "platform/util/mutex.h"

namespace zq {
namespace {

constexpr std::size_t kMaxWaiting = std::size_t{8} << 20;
// Lines wait in blocks. A buffer that grows would be a large piece of memory after a burst. Once
// that is freed, the C library keeps as much for each thread.
constexpr std::size_t kBlock = std::size_t{64} << 10;
constexpr std::chrono::seconds kLongestEnd{1};

}  // namespace

struct TraceFile::Shared {
  explicit Shared(int opened) : descriptor(opened) {}
  ~Shared() { ::close(descriptor); }

  void append(std::string_view line) REQUIRES(mutex);
  void write(std::string_view lines);
  bool takeBack(std::size_t bytes) const;
  void run();

  const int descriptor;
  Mutex mutex;
  ConditionVariable changed;
  std::vector<std::string> waiting GUARDED_BY(mutex);  // blocks of lines
  std::size_t waitingSize GUARDED_BY(mutex) = 0;
  bool isEnding GUARDED_BY(mutex) = false;
  bool hasEnded GUARDED_BY(mutex) = false;
  uint64_t dropped GUARDED_BY(mutex) = 0;
  // Of the writing thread.
  uint64_t written = 0;
  uint64_t refused = 0;   // by the disk
  bool isInLine = false;  // the disk took a part of a line
};

int TraceFile::open(const std::string& file, std::string& error) {
  // Does not wait for the reader of a pipe, which is then refused.
  const int descriptor =
      ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
             S_IRUSR | S_IWUSR);
  if (descriptor < 0) {
    error = file + ": " + std::strerror(errno);
    return -1;
  }
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
      status.st_uid == ::geteuid()) {
    return descriptor;
  }
  ::close(descriptor);
  error = file + " is not a regular file of this user";
  return -1;
}

TraceFile::TraceFile(int descriptor) : shared_(std::make_shared<Shared>(descriptor)) {
  startLibraryThread("zqbus-trace", [shared = shared_] { shared->run(); }).detach();
}

void TraceFile::end() {
  const auto deadline = ConditionVariable::Clock::now() + kLongestEnd;
  const MutexLock lock(shared_->mutex);
  if (std::exchange(shared_->isEnding, true)) return;
  shared_->changed.notifyAll();
  while (!shared_->hasEnded && shared_->changed.waitUntil(shared_->mutex, deadline)) {
  }
}

void TraceFile::add(std::string_view line) {
  const MutexLock lock(shared_->mutex);
  if (shared_->waitingSize + line.size() >= kMaxWaiting) {
    ++shared_->dropped;
    return;
  }
  if (shared_->waiting.empty()) shared_->changed.notifyAll();
  shared_->append(line);
}

void TraceFile::Shared::append(std::string_view line) {
  const std::size_t size = line.size() + 1;
  if (waiting.empty() || waiting.back().capacity() - waiting.back().size() < size) {
    waiting.emplace_back().reserve(std::max(size, kBlock));
  }
  waiting.back().append(line).push_back('\n');
  waitingSize += size;
}

void TraceFile::Shared::run() {
  MutexLock lock(mutex);
  while (!isEnding || !waiting.empty()) {
    while (!isEnding && waiting.empty()) changed.wait(mutex);
    std::vector<std::string> blocks;
    blocks.swap(waiting);
    waitingSize = 0;
    lock.unlock();
    for (const std::string& lines : blocks) write(lines);
    blocks.clear();
    lock.lock();
  }
  const uint64_t lost = dropped + refused;
  lock.unlock();
  const std::string last = R"({"kind":"end","written":)" + std::to_string(written) +
                           R"(,"dropped":)" + std::to_string(lost) + "}\n";
  write(last);
  if (lost > 0) {
    busLog("the trace lacks " + std::to_string(lost) +
           " entries: the disk or its writer did not keep up, or the disk is full");
  }
  lock.lock();
  hasEnded = true;
  changed.notifyAll();
}

void TraceFile::Shared::write(std::string_view lines) {
  const auto append = [this](std::string_view& rest) {
    const ssize_t taken = ::write(descriptor, rest.data(), rest.size());
    if (taken > 0) rest.remove_prefix(static_cast<std::size_t>(taken));
    return taken > 0 || (taken < 0 && errno == EINTR);
  };
  if (std::string_view end = "\n"; isInLine && append(end)) isInLine = false;
  std::string_view rest = lines;
  while (!rest.empty() && append(rest)) {
  }
  const auto taken = lines.substr(0, lines.size() - rest.size());
  written += static_cast<uint64_t>(std::count(taken.begin(), taken.end(), '\n'));
  refused += static_cast<uint64_t>(std::count(rest.begin(), rest.end(), '\n'));
  const std::size_t inLine = taken.size() - (taken.rfind('\n') + 1);
  if (!taken.empty()) isInLine = inLine > 0 && !takeBack(inLine);
}

/// Takes the last bytes that were written off the file. False when that fails, or when another
/// process has written behind them.
bool TraceFile::Shared::takeBack(std::size_t bytes) const {
  struct stat status {};
  const off_t end = ::lseek(descriptor, 0, SEEK_CUR);
  return end >= 0 && ::fstat(descriptor, &status) == 0 && status.st_size == end &&
         ::ftruncate(descriptor, end - static_cast<off_t>(bytes)) == 0;
}

}  // namespace zq
