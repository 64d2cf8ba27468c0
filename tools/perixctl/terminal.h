// Standard output and the terminal, as the tool's results and its waiting line see them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>

#include "platform/util/mutex.h"
#include "tools/embedded/child_process.h"

namespace zq::ctl {

/// The process's standard output, kept for results alone.
class Terminal {
 public:
  Terminal();

  /// Writes all of `text` to standard output at once. What cannot be written is lost.
  void write(const std::string& text) const;
  /// From now on, whatever else in this process prints to standard output goes to standard error,
  /// or nowhere. For the connection's own line about its log.
  void keepForeignOutputAway(bool toStandardError);
  /// Whether results may be coloured: on a terminal, unless NO_COLOR is set.
  bool colour() const;

 private:
  OwnedDescriptor output_;
  bool foreignOutputAway_ = false;
};

/// The line on a terminal's standard error that says that something takes long: from its second
/// second on, or as soon as there is progress to show. Nothing on anything but a terminal.
class WaitIndicator {
 public:
  WaitIndicator();
  ~WaitIndicator() { end(); }
  WaitIndicator(const WaitIndicator&) = delete;
  WaitIndicator& operator=(const WaitIndicator&) = delete;

  /// Shows a bar. Any thread.
  void progress(unsigned percent, const std::string& text);
  /// Takes the line away for good.
  void end();

 private:
  void run(const std::stop_token& stop);

  Mutex mutex_;
  std::condition_variable_any changed_;  // the kind that a stop request wakes
  std::string text_ GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::jthread thread_;  ///< last: its thread uses the others
};

}  // namespace zq::ctl
