// The file of the log and the older files beside it.
#pragma once

#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <string>
#include <string_view>

namespace zq {

/// "<name>.log", to which lines are appended; at 10 MiB it becomes "<name>.1.log", that one
/// "<name>.2.log", and the one before is deleted.
///
/// Several processes may write to the same file. Lines stay whole because each write(2) takes whole
/// lines in one append. The process that finds the file full renames it, under a lock on the file;
/// the others notice before their next write and follow to the new one. No process waits for the
/// lock: while another process has it, and when renaming fails, the file may grow by another 1 MiB
/// and no further.
///
/// The program may close the descriptor, and get the number for a file of its own: the log notices
/// and neither writes nor closes that file.
///
/// One thread at a time.
class LogFile {
 public:
  LogFile() = default;
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Goes on in `directory`, which must exist. Null, or the reason why it did not, without effect.
  ///
  /// Only a regular file with one name that belongs to this user is written, in a directory that
  /// belongs to this user or to root and that no other user can write. The directory may be reached
  /// through a symbolic link, the file may not.
  [[nodiscard]] const char* moveTo(const std::filesystem::path& directory, const std::string& name);

  /// Appends whole lines, at most 1 MiB. The number of bytes written: fewer when the disk is
  /// full, and 0 when the file is full and cannot be renamed. Changes errno.
  [[nodiscard]] std::size_t append(std::string_view lines) noexcept;

 private:
  bool isOpen(struct stat& file) const;
  bool hasName(const struct stat& file) const;
  bool isRemoved(const struct stat& file) const;
  void adopt(int descriptor);
  void followName(std::size_t size, rlim_t limit);
  void shiftFiles(int directory) const;

  std::string directory_;
  std::array<std::string, 3> names_;  // from the newest to the oldest
  std::string path_;                  // of the newest
  int descriptor_ = -1;
  dev_t device_ = 0;  // of the file behind the descriptor
  ino_t inode_ = 0;
  bool hasRefused_ = false;
};

}  // namespace zq
