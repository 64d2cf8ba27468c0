#include "tools/perixctl/why/log_files.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace zq::ctl {
namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
constexpr std::string_view kRefusalTag = " PERIX_REFUSED: ";

/// Whether a line is a refusal about one of the subjects, which end it.
bool isAbout(const std::string& line, const std::string& number, const std::string& source) {
  return line.find(kRefusalTag) != std::string::npos &&
         (line.ends_with(number) || line.ends_with(source));
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
  return isFull ? std::strerror(ENOSPC) : "";
}

Refusals refusalsOf(const std::string& directory, uint16_t number, uint64_t sourceId) {
  const std::string byNumber = ", device " + std::to_string(number) + '"';
  const std::string bySource = ", source id " + std::to_string(sourceId) + '"';
  Refusals found;
  std::string newest;  // lines begin with their time
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(directory, error)) {
    if (file.path().extension() != ".log") continue;
    std::ifstream lines(file.path());
    for (std::string line; std::getline(lines, line);) {
      if (!isAbout(line, byNumber, bySource)) continue;
      ++found.count;
      if (line <= newest) continue;
      newest = line;
      found.last = file.path().filename().string() + ": " + line;
    }
  }
  return found;
}

}  // namespace zq::ctl
