#include "tools/embedded/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <sstream>
#include <system_error>
#include <utility>

#include "platform/util/fork_generation.h"
#include "platform/util/library_thread.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;

// Descriptors of the parent's are kept above the numbers that the child's have, so that placing one
// of the child's never overwrites another.
constexpr int kFirstParentDescriptor = 10;

[[noreturn]] void throwErrno(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

OwnedDescriptor moveUp(int descriptor) {
  OwnedDescriptor low(descriptor);
  OwnedDescriptor high(fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstParentDescriptor));
  if (!high) throwErrno("duplicating a descriptor");
  return high;
}

struct Pipe {
  OwnedDescriptor read;
  OwnedDescriptor write;
};

Pipe makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throwErrno("making a pipe");
  Pipe pipe;
  pipe.read = moveUp(ends[0]);
  pipe.write = moveUp(ends[1]);
  return pipe;
}

OwnedDescriptor openNull() {
  const int descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (descriptor < 0) throwErrno("opening /dev/null");
  return moveUp(descriptor);
}

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& added) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!added.contains(text.substr(0, text.find('=')))) merged.push_back(text);
  }
  for (const auto& [name, value] : added) merged.push_back(name + "=" + value);
  return merged;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Everything that the child needs between fork and exec, prepared before: only calls that are safe
// after a fork of a process with threads are made there.
struct Launch {
  const char* path;
  char* const* arguments;
  char* const* environment;
  int descriptors[4];  // the child's 0 to 3, -1 for the parent's own
  int failure;         // where the error number goes when the program cannot be run
  pid_t parent;
};

[[noreturn]] void failInChild(const Launch& launch) {
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(launch.failure, &error, sizeof(error));
  _exit(127);
}

[[noreturn]] void runChild(const Launch& launch) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) failInChild(launch);
  // The parent may have died before the line above took effect.
  if (getppid() != launch.parent) _exit(127);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int number = 0; number < 4; ++number) {
    const int descriptor = launch.descriptors[number];
    if (descriptor >= 0 && dup2(descriptor, number) < 0) failInChild(launch);
  }
  execve(launch.path, launch.arguments, launch.environment);
  failInChild(launch);
}

// Blocks until the process ends, and leaves it to be reaped.
void awaitEnd(pid_t pid) {
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
  }
}

// The child's process id. The kernel kills a child when the thread that forked it ends, so a thread
// forks that ends after the child.
pid_t forkChild(const Launch& launch) {
  const auto forked = std::make_shared<std::promise<std::pair<pid_t, int>>>();
  startLibraryThread("zq-child", [forked, &launch] {
    const pid_t pid = fork();
    if (pid == 0) runChild(launch);
    forked->set_value({pid, errno});  // `launch` is gone from here on
    if (pid > 0) awaitEnd(pid);
  }).detach();
  const auto [pid, error] = forked->get_future().get();
  if (pid < 0) throwErrno("fork", error);
  return pid;
}

void throwIfNotStarted(const OwnedDescriptor& failure, pid_t pid, const std::string& program) {
  int error = 0;
  ssize_t got;
  do {
    got = read(failure.get(), &error, sizeof(error));
  } while (got < 0 && errno == EINTR);
  if (got == 0) return;  // closed by a successful exec
  waitpid(pid, nullptr, 0);
  throwErrno("cannot run '" + program + "'", got == sizeof(error) ? error : EIO);
}

int statusOf(int waitStatus) {
  return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

// Appends the bytes that arrive before the deadline; false at the end, at the deadline, on error.
bool readMore(const OwnedDescriptor& from, std::string& buffer, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<ChildProcess::Milliseconds>(deadline - Clock::now());
  pollfd ready{from.get(), POLLIN, 0};
  const int count = poll(&ready, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
  if (count < 0 && errno == EINTR) return true;
  if (count <= 0) return false;
  char chunk[4096];
  const ssize_t got = read(from.get(), chunk, sizeof(chunk));
  if (got > 0) buffer.append(chunk, static_cast<std::size_t>(got));
  return got > 0;
}

std::optional<std::string> takeLine(const OwnedDescriptor& from, std::string& buffer,
                                    Clock::time_point deadline) {
  std::size_t end;
  while ((end = buffer.find('\n')) == std::string::npos) {
    if (!readMore(from, buffer, deadline)) return std::nullopt;
  }
  std::string line = buffer.substr(0, end);
  buffer.erase(0, end + 1);
  return line;
}

// True too when the process was reaped already.
bool exitsBefore(pid_t pid, Clock::time_point deadline) {
  const OwnedDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!process) return true;
  const auto left = std::chrono::ceil<ChildProcess::Milliseconds>(deadline - Clock::now());
  pollfd exit{process.get(), POLLIN, 0};
  return poll(&exit, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0) == 1;
}

}  // namespace

OwnedDescriptor& OwnedDescriptor::operator=(OwnedDescriptor&& other) noexcept {
  if (this != &other) {
    reset();
    descriptor_ = other.release();
  }
  return *this;
}

int OwnedDescriptor::release() {
  return std::exchange(descriptor_, -1);
}

void OwnedDescriptor::reset() {
  if (descriptor_ >= 0) close(release());
}

ChildProcess::ChildProcess(const Options& options) : generation_(forkGeneration()) {
  std::vector<std::string> arguments = options.arguments;
  std::vector<std::string> environment = mergedEnvironment(options.environment);
  const std::vector<char*> argumentPointers = pointersTo(arguments);
  const std::vector<char*> environmentPointers = pointersTo(environment);
  const std::string path = findInPath(arguments.at(0));
  if (path.empty()) throwErrno("cannot run '" + arguments[0] + "'", ENOENT);

  const OwnedDescriptor null = openNull();
  Pipe failure = makePipe();
  Pipe output = options.output == Stream::Capture ? makePipe() : Pipe{};
  Pipe readiness = options.readiness ? makePipe() : Pipe{};
  if (options.error == Stream::Capture) {
    error_ = moveUp(memfd_create("captured-errors", MFD_CLOEXEC));
  }
  const auto target = [&](Stream stream, const OwnedDescriptor& captured) {
    return stream == Stream::Discard ? null.get() : captured.get();
  };
  const Launch launch{path.c_str(),
                      argumentPointers.data(),
                      environmentPointers.data(),
                      {options.inheritInput ? -1 : null.get(), target(options.output, output.write),
                       target(options.error, error_), readiness.write.get()},
                      failure.write.get(),
                      getpid()};
  pid_ = forkChild(launch);
  failure.write.reset();
  throwIfNotStarted(failure.read, pid_, arguments[0]);
  output_ = std::move(output.read);
  readiness_ = std::move(readiness.read);
}

ChildProcess::~ChildProcess() {
  kill();
}

void ChildProcess::signal(int number) const {
  if (!status_ && generation_ == forkGeneration()) ::kill(pid_, number);
}

void ChildProcess::pause() const {
  signal(SIGSTOP);
  siginfo_t info;
  while (!status_ &&
         waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT) < 0 &&
         errno == EINTR) {
  }
}

int ChildProcess::wait() {
  int waitStatus = 0;
  while (!status_) {
    if (waitpid(pid_, &waitStatus, 0) == pid_) {
      status_ = statusOf(waitStatus);
    } else if (errno != EINTR) {
      status_ = 127;  // it was reaped elsewhere
    }
  }
  return *status_;
}

int ChildProcess::kill() {
  signal(SIGKILL);
  return wait();
}

bool ChildProcess::running() {
  int waitStatus = 0;
  if (!status_ && waitpid(pid_, &waitStatus, WNOHANG) == pid_) status_ = statusOf(waitStatus);
  return !status_;
}

std::optional<std::string> ChildProcess::readinessLine(Milliseconds timeout) {
  return takeLine(readiness_, readinessBuffer_, Clock::now() + timeout);
}

std::optional<std::string> ChildProcess::outputLine(Milliseconds timeout) {
  return takeLine(output_, outputBuffer_, Clock::now() + timeout);
}

std::string ChildProcess::errorText() const {
  std::string text;
  char chunk[4096];
  ssize_t got;
  while ((got = pread(error_.get(), chunk, sizeof(chunk), static_cast<off_t>(text.size()))) > 0) {
    text.append(chunk, static_cast<std::size_t>(got));
  }
  return text;
}

ChildProcess::Result ChildProcess::finish(Milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  while (output_ && readMore(output_, outputBuffer_, deadline)) continue;
  const int status = exitsBefore(pid_, deadline) ? wait() : kill();
  return {status, std::exchange(outputBuffer_, {}), errorText()};
}

std::string findInPath(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  const char* path = std::getenv("PATH");
  std::istringstream directories(path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
  for (std::string directory; std::getline(directories, directory, ':');) {
    std::string candidate = (directory.empty() ? "." : directory) + "/" + program;
    if (std::filesystem::is_directory(candidate)) continue;  // may be searched, not run
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

}  // namespace zq
