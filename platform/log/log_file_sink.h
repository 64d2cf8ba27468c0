// Collects the log's lines for its file.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>

#include "platform/log/log_file.h"

namespace zq {

/// Gathers lines up to 32 KiB and appends them to the file. Lines that cannot be written
/// are counted, and a line with their number precedes the next lines that are written.
///
/// Fork. No line of the parent is written twice, and the child goes on with the log, writing every
/// line at once, since it has no thread that flushes.
///
/// Any thread, as every spdlog sink.
class LogFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogFileSink();

  /// Goes on in "<directory>/<name>.log". Null, or the reason why it did not, without effect.
  [[nodiscard]] const char* moveTo(const std::filesystem::path& directory, const std::string& name);

  /// Blocks until a line waits for flush(). For one thread.
  void awaitLine();

  /// From now on every line is written at once.
  void writeThrough();

  // The handlers of pthread_atfork.
  void beforeFork();
  void afterForkInParent();
  void afterForkInChild();

 private:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override;

  void writeOut() noexcept;
  void tellLoss() noexcept;
  void append(const spdlog::memory_buf_t& lines) noexcept;

  LogFile file_;
  spdlog::memory_buf_t pending_;
  std::size_t lost_ = 0;
  bool endsInLine_ = false;  // the file took a part of a line
  std::atomic<int> awaitsLine_ = 0;
  bool writesThrough_ = false;
  bool namesParent_ = false;  // the formatter holds the process id of the parent
};

}  // namespace zq
