// A child process that never outlives its parent.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zq {

/// An open file descriptor and its owner. Move-only; closes on destruction.
class OwnedDescriptor {
 public:
  OwnedDescriptor() = default;
  explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
  OwnedDescriptor(OwnedDescriptor&& other) noexcept : descriptor_(other.release()) {}
  OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept;
  ~OwnedDescriptor() { reset(); }

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  int release();
  void reset();

 private:
  int descriptor_ = -1;
};

/// A process from its start to its reaping. The destructor kills it when it still runs, and the
/// kernel kills it when this process ends or runs another program.
///
/// Any thread may use an object, one at a time; signal() may be called beside a blocked reader. A
/// forked child's copy sends no signals, and takes the process for ended with the status 127.
class ChildProcess {
 public:
  using Milliseconds = std::chrono::milliseconds;

  enum class Stream {
    Inherit,  ///< the parent's own
    Discard,  ///< /dev/null
    Capture,  ///< kept for the parent to read
  };

  struct Options {
    /// The program and its arguments; the program is looked up in PATH when it holds no slash.
    std::vector<std::string> arguments;
    /// Set in the child on top of the parent's environment.
    std::map<std::string, std::string> environment;
    /// Standard input is the parent's own, else /dev/null.
    bool inheritInput = false;
    Stream output = Stream::Inherit;
    /// Captured errors never fill up: the child does not block while they are not read.
    Stream error = Stream::Inherit;
    /// Gives the child the write end of a pipe as descriptor kReadinessDescriptor.
    bool readiness = false;
  };
  static constexpr int kReadinessDescriptor = 3;

  struct Result {
    int status;          ///< as wait() returns it
    std::string output;  ///< the captured output that was not read by lines
    std::string error;
  };

  /// Starts the process. Throws std::system_error, with the program's name, when it cannot be run.
  explicit ChildProcess(const Options& options);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  /// Sends a signal, unless the process was reaped or this process is a forked child.
  void signal(int number) const;
  /// Stops it with SIGSTOP, and returns when all of its threads stand still.
  void pause() const;
  /// Blocks until the process ends and reaps it: its exit code, or 128 plus the number of the
  /// signal that ended it. Again afterwards: the same.
  int wait();
  /// SIGKILL and wait().
  int kill();
  /// Whether the process still runs; reaps it when not.
  bool running();

  /// The first line that the process writes to its readiness descriptor, without its end. Empty
  /// when the process closed it (or died) first or `timeout` passed.
  std::optional<std::string> readinessLine(Milliseconds timeout);
  /// The next line of captured output. Empty at its end or when `timeout` passed.
  std::optional<std::string> outputLine(Milliseconds timeout);
  /// The errors that were captured so far.
  std::string errorText() const;
  /// Waits for the end of the process, at most `timeout`; kills it then.
  Result finish(Milliseconds timeout);

 private:
  const int generation_;  ///< of the process that made the object
  pid_t pid_ = -1;
  std::optional<int> status_;
  OwnedDescriptor readiness_;
  OwnedDescriptor output_;
  OwnedDescriptor error_;
  std::string readinessBuffer_;
  std::string outputBuffer_;
};

/// The path of `program`: itself when it holds a slash, else the first executable file of that name
/// in the directories of PATH, else empty.
std::string findInPath(const std::string& program);

}  // namespace zq
