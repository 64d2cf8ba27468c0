#include "platform/log/log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/util/signals.h"

namespace zq {
namespace {

constexpr rlim_t kFullAt = 10 * 1024 * 1024;
constexpr rlim_t kLargest = kFullAt + 1024 * 1024;

/// An owned descriptor, or the reason why there is none.
class Opened {
 public:
  /// Takes `descriptor` over when `whyNot` has no objection to its file.
  Opened(int descriptor, const char* (*whyNot)(const struct stat&))
      : descriptor_(aboveStandardStreams(descriptor)) {
    struct stat status {};
    const bool isOpen = descriptor_ >= 0 && ::fstat(descriptor_, &status) == 0;
    refusal_ = isOpen ? whyNot(status) : ::strerrordesc_np(errno);
    if (refusal_ && descriptor_ >= 0) ::close(release());
  }
  ~Opened() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;

  explicit operator bool() const { return descriptor_ >= 0; }
  const char* refusal() const { return refusal_; }
  int get() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }

 private:
  // When the program has closed its standard output, a log with that number would receive the
  // program's output.
  static int aboveStandardStreams(int descriptor) {
    if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
    const int above = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return above;
  }

  int descriptor_;
  const char* refusal_;
};

const char* whyNotDirectory(const struct stat& status) {
  if (status.st_uid != ::geteuid() && status.st_uid != 0) {
    return "the directory belongs to another user";
  }
  const bool isShared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  return isShared ? "other users may write to the directory" : nullptr;
}

const char* whyNotFile(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != ::geteuid()) return "it belongs to another user";
  return status.st_nlink > 1 ? "it has another name, too" : nullptr;
}

// These two look at the open file, and not at the file that has its name a moment later.
Opened openDirectory(const std::string& path) {
  return {::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), whyNotDirectory};
}

// Does not wait for a reader if the file is a pipe.
Opened openFile(int directory, const std::string& name, int create = O_CREAT) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return {::openat(directory, name.c_str(), kFlags | create, S_IRUSR | S_IWUSR), whyNotFile};
}

/// The largest file that the process may write, in bytes.
rlim_t fileSizeLimit() {
  rlimit limit{};
  return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

bool exceeds(const struct stat& file, std::size_t more, rlim_t largest, rlim_t limit) {
  return static_cast<rlim_t>(file.st_size) + more > std::min(largest, limit);
}

// An empty file is not full: a new file could not hold more.
bool isFull(const struct stat& file, std::size_t more, rlim_t limit) {
  return file.st_size > 0 && exceeds(file, more, kFullAt, limit);
}

// Where the file system has no locks, rotating twice for one overflow is better than never.
bool lockAtOnce(int descriptor) {
  return ::flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Only a limit makes a write to a file raise a signal; without, two system calls are spared.
std::size_t writeWhole(int descriptor, std::string_view lines, rlim_t limit) {
  std::size_t done = 0;
  while (done < lines.size()) {
    const auto rest = lines.substr(done);
    const ssize_t written = limit == RLIM_INFINITY ? ::write(descriptor, rest.data(), rest.size())
                                                   : writeWithoutSignal(descriptor, rest);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<std::size_t>(written);
  }
  return done;
}

}  // namespace

LogFile::~LogFile() {
  struct stat file {};
  if (isOpen(file)) ::close(descriptor_);
}

const char* LogFile::moveTo(const std::filesystem::path& directory, const std::string& name) {
  std::array names = {name + ".log", name + ".1.log", name + ".2.log"};
  std::string folder = directory;
  std::string path = directory / names.front();
  if (descriptor_ >= 0 && folder == directory_ && names == names_) return nullptr;
  const Opened opened = openDirectory(folder);
  if (!opened) return opened.refusal();
  Opened file = openFile(opened.get(), names.front());
  if (!file) return file.refusal();
  adopt(file.release());
  directory_ = std::move(folder);
  names_ = std::move(names);
  path_ = std::move(path);
  return nullptr;
}

std::size_t LogFile::append(std::string_view lines) noexcept {
  const NoCancellation guard;
  const rlim_t limit = fileSizeLimit();
  struct stat file {};
  if (!isOpen(file) || !hasName(file) || isFull(file, lines.size(), limit)) {
    followName(lines.size(), limit);
    if (!isOpen(file) || isRemoved(file)) return 0;
  }
  // Once a line did not fit, shorter lines are not written either until there is room again: so a
  // loss is one gap.
  hasRefused_ = exceeds(file, lines.size(), hasRefused_ ? kFullAt : kLargest, limit);
  return hasRefused_ ? 0 : writeWhole(descriptor_, lines, limit);
}

// False when the program has closed the descriptor, even if its number is in use again.
bool LogFile::isOpen(struct stat& file) const {
  return descriptor_ >= 0 && ::fstat(descriptor_, &file) == 0 && file.st_dev == device_ &&
         file.st_ino == inode_;
}

// Whether the open file still has the log's name: no process has rotated or removed it.
bool LogFile::hasName(const struct stat& file) const {
  struct stat named {};
  return ::lstat(path_.c_str(), &named) == 0 && named.st_ino == file.st_ino &&
         named.st_dev == file.st_dev;
}

// A file without a name cannot be read later. The count of links alone does not tell: some file
// systems have 0 for every file.
bool LogFile::isRemoved(const struct stat& file) const {
  return file.st_nlink == 0 && !hasName(file);
}

void LogFile::adopt(int descriptor) {
  struct stat file {};
  // The same number comes back after the program has closed it.
  if (descriptor != descriptor_ && isOpen(file)) ::close(descriptor_);
  descriptor_ = descriptor;
  ::fstat(descriptor, &file);
  device_ = file.st_dev;
  inode_ = file.st_ino;
}

/// Allocates nothing. The oldest file is emptied first: another process may have it open, idle, and
/// hold its blocks. It is removed by itself, since some file systems write out a file that is
/// renamed onto another file.
void LogFile::shiftFiles(int directory) const {
  if (const Opened oldest = openFile(directory, names_.back(), 0)) ::ftruncate(oldest.get(), 0);
  ::unlinkat(directory, names_.back().c_str(), 0);
  for (std::size_t age = names_.size() - 1; age > 0; --age) {
    ::renameat(directory, names_[age - 1].c_str(), directory, names_[age].c_str());
  }
}

/// Goes on in the file that has the log's name, or in a new file if that has no room for `size`
/// bytes.
void LogFile::followName(std::size_t size, rlim_t limit) {
  const Opened directory = openDirectory(directory_);
  if (!directory) return;
  Opened current = openFile(directory.get(), names_.front());
  if (!current) return;
  adopt(current.release());
  struct stat file {};
  if (!isOpen(file) || !isFull(file, size, limit)) return;
  // The lock belongs to the descriptor that was opened just now: a forked child shares older
  // descriptors, and their locks.
  if (!lockAtOnce(descriptor_)) return;
  // Another process may have made room between the opening and the lock.
  if (hasName(file)) shiftFiles(directory.get());
  if (Opened next = openFile(directory.get(), names_.front())) {
    adopt(next.release());
  } else {
    ::flock(descriptor_, LOCK_UN);
  }
}

}  // namespace zq
