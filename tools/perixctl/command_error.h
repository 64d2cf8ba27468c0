// The ends of commands, and the failures that end them early.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace zq::ctl {

/// The tool's exit codes; scripts rely on the numbers.
enum class ExitCode : int {
  Done = 0,
  Refused = 1,      ///< the service answered, and the answer is no; or the output cannot be written
  Usage = 2,        ///< the command line, or a file that it names, is wrong
  TimedOut = 3,     ///< no answer in time
  NoService = 8,    ///< there is no bus or no service, or it went away during the call
  NotFound = 10,    ///< the service does not know the desktop, device or printer
  CannotRun = 127,  ///< the program of 'service run' cannot be run
};

/// The code's word in `--json` errors: "refused", "usage" and so on.
const char* wordOf(ExitCode code);

/// Ends a command: the exit code, and the failure in words.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  CommandError(ExitCode code, const std::string& text, int result)
      : std::runtime_error(text), code_(code), result_(result) {}

  ExitCode code() const { return code_; }
  /// The service's own result, when it gave one.
  const std::optional<int>& result() const { return result_; }

 private:
  ExitCode code_;
  std::optional<int> result_;
};

/// Throws the CommandError that says why the last operation of this thread got no answer; returns
/// when it got one.
void requireAnswer();

/// As requireAnswer, but for a refusal, whose words it returns; empty for an answer.
std::string refusal();

/// Throws unless the last operation got an answer and `result`, which it returned, is 0.
void requireDone(int result);

/// The error for a refusal that came as a text. The text of a known result counts as the result.
CommandError refusalInWords(const std::string& text);

}  // namespace zq::ctl
