#include "tools/perixctl/why/log_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

namespace zq::ctl {
namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
constexpr std::string_view kRefusalTag = " PERIX_REFUSED: ";

/// Whether a line is a refusal about one of the subjects, which end it.
bool isAbout(const std::string& line, const std::string& number, const std::string& source) {
  return line.find(kRefusalTag) != std::string::npos &&
         (line.ends_with(number) || line.ends_with(source));
}

/// Calls `use` with each line of a log, which has 11 MiB at most as the library writes it; of a
/// larger file, with the lines at its end. Any file can have the name of a log: a file that is not
/// regular has no lines.
template <typename Use>
void forEachLine(const std::string& path, const Use& use) {
  constexpr off_t kMostBytes = off_t{16} << 20;
  constexpr std::size_t kLongestLine = std::size_t{64} << 10;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  const auto close = [](std::FILE* file) { std::fclose(file); };
  const std::unique_ptr<std::FILE, decltype(close)> file(::fdopen(descriptor, "r"), close);
  struct stat state {};
  if (file == nullptr || ::fstat(descriptor, &state) != 0 || !S_ISREG(state.st_mode)) return;
  if (state.st_size > kMostBytes) ::fseeko(file.get(), -kMostBytes, SEEK_END);
  std::vector<char> line(kLongestLine);
  for (off_t left = kMostBytes; left > 0 && std::fgets(line.data(), kLongestLine, file.get());) {
    std::string text = line.data();
    left -= static_cast<off_t>(text.size()) + 1;
    if (text.ends_with('\n')) text.pop_back();
    use(text);
  }
}

/// Why the library does not write to a file with the name of its log; empty when it does.
std::string obstacleToFile(const std::string& path) {
  struct stat state {};
  const std::string name = std::filesystem::path(path).filename().string() + ' ';
  if (::lstat(path.c_str(), &state) != 0) return errno == ENOENT ? "" : std::strerror(errno);
  if (!S_ISREG(state.st_mode)) return name + "is not a regular file";
  if (state.st_uid != ::geteuid()) return name + "belongs to another user";
  if (state.st_nlink > 1) return name + "has another name, too";
  if (::access(path.c_str(), W_OK) != 0) return name + "cannot be written";
  return "";
}

}  // namespace

std::string obstacleToLog(const std::string& directory) {
  struct stat state {};
  if (::stat(directory.c_str(), &state) != 0) return std::strerror(errno);
  if (state.st_uid != ::geteuid() && state.st_uid != 0) return "it belongs to another user";
  if ((state.st_mode & kWritableByOthers) != 0) return "other users may write to it";
  if (::access(directory.c_str(), W_OK | X_OK) != 0) return std::strerror(errno);
  struct statvfs space {};
  const bool isFull = ::statvfs(directory.c_str(), &space) == 0 && space.f_bavail == 0;
  if (isFull) return std::strerror(ENOSPC);
  return obstacleToFile(directory + '/' + program_invocation_short_name + ".log");
}

Refusals refusalsOf(const std::string& directory, uint16_t number, uint64_t sourceId) {
  const std::string byNumber = ", device " + std::to_string(number) + '"';
  const std::string bySource = ", source id " + std::to_string(sourceId) + '"';
  Refusals found;
  std::string newest;  // lines begin with their time
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(directory, error)) {
    if (file.path().extension() != ".log") continue;
    forEachLine(file.path(), [&](const std::string& line) {
      if (!isAbout(line, byNumber, bySource)) return;
      ++found.count;
      if (line <= newest) return;
      newest = line;
      found.last = file.path().filename().string() + ": " + line;
    });
  }
  return found;
}

}  // namespace zq::ctl
