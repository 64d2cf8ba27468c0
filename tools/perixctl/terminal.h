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
  /// Asks for the user's locale, and leaves the program's character type set to it.
  Terminal();

  /// Writes all of `text` to standard output at once. Throws CommandError (Refused) when it cannot.
  void write(const std::string& text) const;
  /// Throws as write() does, when it is known already that nothing can be written.
  void requireWritable() const;
  /// Standard output itself, for poll(2): an error there says that its reader is gone.
  int descriptor() const { return output_.get(); }
  /// From now on, whatever else in this process prints to standard output goes to standard error,
  /// or nowhere. For the connection's own line about its log.
  void keepForeignOutputAway(bool toStandardError);
  /// Whether standard output is a terminal.
  bool isInteractive() const;
  /// Whether results may be coloured: on a terminal, unless NO_COLOR is set.
  bool colour() const;
  /// Whether the user's locale has UTF-8, so that signs beyond ASCII are shown.
  bool showsUtf8() const { return showsUtf8_; }
  /// The columns of the terminal, 0 for anything else.
  std::size_t width() const;

 private:
  OwnedDescriptor output_;
  bool foreignOutputAway_ = false;
  bool showsUtf8_;
};

/// Reads a line from the terminal that is standard input, without showing it. The
/// terminal shows it again afterwards; `restoreEcho` does the same, from any thread.
std::string readHidden(const std::string& prompt);
void restoreEcho();

/// The line on a terminal's standard error that says that something takes long: from its second
/// second on, or as soon as there is progress to show. Nothing on anything but a terminal.
class WaitIndicator {
 public:
  explicit WaitIndicator(bool quiet);
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
