// The file of a trace.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace zq {

/// Appends lines to a file, on a thread of its own. Any thread may add lines, and none waits for
/// the disk.
class TraceFile {
 public:
  /// Takes over an open descriptor.
  explicit TraceFile(int descriptor);
  ~TraceFile() { end(); }
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  /// Opens a regular file of this user, or creates it for this user alone. Negative, `error` in
  /// words, when that fails.
  [[nodiscard]] static int open(const std::string& file, std::string& error);

  /// Adds a line, given without its end; drops it when 8 MiB wait already.
  void add(std::string_view line);
  /// Ends the file with a line that counts the others. Waits for a second at most until all is
  /// written; the second time it does nothing.
  void end();

 private:
  /// What the writing thread shares with this object, which may end before a write that hangs.
  struct Shared;
  const std::shared_ptr<Shared> shared_;
};

}  // namespace zq
