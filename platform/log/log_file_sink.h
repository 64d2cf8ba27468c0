// The file behind the log: rotated, shared by the processes of one program.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <filesystem>
#include <mutex>
#include <string>

namespace zq {

/// Gathers lines and appends them to "<name>.log"; what does not fit any more moves to
/// "<name>.1.log", and so on.
///
/// Several processes may write to the same file. Lines stay whole because each write(2) takes whole
/// lines in one append. At rotation the first process that finds the file full renames it, under a
/// lock on the file itself; the others notice before their next write and follow to the new one.
///
/// Fork. No line of the parent's comes out twice, and the child goes on with the log, writing every
/// line at once, since it has no thread that flushes.
///
/// Any thread, as every spdlog sink. A write that fails loses its lines, silently.
class LogFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogFileSink();
  ~LogFileSink() override;

  /// Goes on in "<directory>/<name>.log". False, and nothing has changed, when it cannot be opened.
  [[nodiscard]] bool moveTo(std::filesystem::path directory, std::string name);

  /// From now on every line is written at once.
  void writeThrough();

  // What pthread_atfork calls around a fork.
  void beforeFork();
  void afterForkInParent();
  void afterForkInChild();

 private:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override;

  std::filesystem::path file(int age) const;
  bool isCurrent() const;
  bool isFull() const;
  void shiftFiles() const;
  void startNewFile();
  void writeOut();

  std::filesystem::path directory_;
  std::string name_;
  spdlog::memory_buf_t pending_;
  int descriptor_ = -1;
  bool writesThrough_ = false;
  bool namesParent_ = false;  // the formatter holds the process id of who forked this one
};

}  // namespace zq
