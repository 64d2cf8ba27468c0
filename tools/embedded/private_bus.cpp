#include "tools/embedded/private_bus.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/util/fork_generation.h"
#include "platform/util/mutex.h"

namespace zq {
namespace {

constexpr ChildProcess::Milliseconds kStartTimeout{10'000};

// The limits are those of a stock session bus, which trusts its one user.
constexpr const char* kConfiguration = R"(<busconfig>
  <type>session</type>
  <listen>unix:path=@SOCKET@</listen>
  <servicedir>services</servicedir>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_incoming_unix_fds">250000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_outgoing_unix_fds">250000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="service_start_timeout">120000</limit>
  <limit name="auth_timeout">240000</limit>
  <limit name="pending_fd_timeout">150000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_incomplete_connections">10000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_pending_service_starts">10000</limit>
  <limit name="max_names_per_connection">50000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

constexpr std::string_view kDirectoryName = "perix-bus-";
constexpr const char* kLockName = "lock";

// The directories of this process. The lock is held while one is made or removed.
Mutex directoriesMutex;
std::vector<std::filesystem::path> directories GUARDED_BY(directoriesMutex);
bool processEnds GUARDED_BY(directoriesMutex) = false;

std::filesystem::path parentDirectory() {
  const char* directory = std::getenv("TMPDIR");
  return directory != nullptr && *directory != '\0' ? directory : "/tmp";
}

void removeQuietly(const std::filesystem::path& directory) {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

OwnedDescriptor openFile(const std::filesystem::path& path, int flags) {
  return OwnedDescriptor(open(path.c_str(), flags | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600));
}

bool isOld(const std::filesystem::path& path) {
  std::error_code error;
  const auto written = std::filesystem::last_write_time(path, error);
  return !error && decltype(written)::clock::now() - written > std::chrono::hours(1);
}

// Whether the lock of the directory is free. A directory without a lock is being made just now; an
// old directory was not made to its end, or was made anew by a file that was written late.
bool isStale(const std::filesystem::path& directory) {
  const OwnedDescriptor lock = openFile(directory / kLockName, 0);
  if (!lock) return errno == ENOENT && isOld(directory);
  return flock(lock.get(), LOCK_EX | LOCK_NB) == 0;
}

// Removes the directories of processes that were killed. Those of other users stay: their locks
// cannot be opened.
void removeStaleDirectories() {
  std::error_code error;
  std::filesystem::directory_iterator entries(parentDirectory(), error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    const std::filesystem::path& path = entries->path();
    if (path.filename().string().starts_with(kDirectoryName) && isStale(path)) removeQuietly(path);
  }
}

std::filesystem::path makeDirectory() {
  const MutexLock lock(directoriesMutex);
  while (processEnds) pause();  // no later code would remove it
  std::string pattern = parentDirectory() / (std::string(kDirectoryName) + "XXXXXX");
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot make " + pattern);
  }
  directories.emplace_back(pattern);
  return pattern;
}

void forget(const std::filesystem::path& directory) {
  const MutexLock lock(directoriesMutex);
  std::erase(directories, directory);
  removeQuietly(directory);
}

// The lock gets its name when it is held: another process never sees it free.
OwnedDescriptor lockDirectory(const std::filesystem::path& directory) {
  const std::filesystem::path unnamed = directory / "new-lock";
  OwnedDescriptor lock = openFile(unnamed, O_CREAT);
  if (!lock || flock(lock.get(), LOCK_EX) != 0 ||
      rename(unnamed.c_str(), (directory / kLockName).c_str()) != 0) {
    const int error = errno;
    // This takes no descriptor, unlike removeQuietly(): there may be none left.
    unlink(unnamed.c_str());
    rmdir(directory.c_str());
    throw std::system_error(error, std::generic_category(), "cannot lock " + directory.string());
  }
  return lock;
}

// A path as a D-Bus address has it; such a text stands for itself in XML.
std::string inAddress(const std::string& path) {
  std::string text;
  for (const char character : path) {
    if (std::isalnum(static_cast<unsigned char>(character)) != 0 ||
        std::string_view("-_/.").find(character) != std::string_view::npos) {
      text += character;
      continue;
    }
    char code[4];
    std::snprintf(code, sizeof(code), "%%%02x", static_cast<unsigned char>(character));
    text += code;
  }
  return text;
}

void writeConfiguration(const std::filesystem::path& file, const std::filesystem::path& socket) {
  const std::string placeholder = "@SOCKET@";
  std::string text = kConfiguration;
  text.replace(text.find(placeholder), placeholder.size(), inAddress(socket.string()));
  std::ofstream out(file);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}

// A child that closes its readiness descriptor ends as soon as it can.
[[noreturn]] void throwNotReady(ChildProcess& child, const std::string& name,
                                std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<ChildProcess::Milliseconds>(deadline - std::chrono::steady_clock::now());
  const bool late = left.count() <= 0;
  const ChildProcess::Result result =
      child.finish(std::max(left, ChildProcess::Milliseconds::zero()));
  const std::string what =
      late ? name + " was not ready after 10 seconds"
           : name + " ended before it was ready (status " + std::to_string(result.status) + ")";
  throw NotReady(result.error.empty() ? what : what + ": " + result.error,
                 late ? std::nullopt : std::optional(result.status), result.error);
}

std::string readinessOf(ChildProcess& child, const std::string& name) {
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  const auto line = child.readinessLine(kStartTimeout);
  if (!line) throwNotReady(child, name, deadline);
  return *line;
}

}  // namespace

PrivateBus::PrivateBus(std::string daemon)
    : program_(std::move(daemon)), generation_(forkGeneration()) {
  removeStaleDirectories();
  directory_ = makeDirectory();
  try {
    lock_ = lockDirectory(directory_);
    std::filesystem::create_directory(directory_ / "services");
    writeConfiguration(directory_ / "bus.conf", directory_ / "bus");
    start();
  } catch (...) {
    forget(directory_);
    throw;
  }
}

PrivateBus::~PrivateBus() {
  daemon_.reset();
  if (!isInherited()) forget(directory_);
}

bool PrivateBus::isInherited() const {
  return generation_ != forkGeneration();
}

void PrivateBus::kill() {
  daemon_->kill();
}

void PrivateBus::restart() {
  kill();
  start();
}

void PrivateBus::removeAll() {
  const MutexLock lock(directoriesMutex);
  std::for_each(directories.begin(), directories.end(), removeQuietly);
  processEnds = true;
}

void PrivateBus::start() {
  std::filesystem::remove(directory_ / "bus");
  ChildProcess::Options options;
  options.arguments = {program_, "--nofork", "--nopidfile",
                       "--config-file=" + (directory_ / "bus.conf").string(),
                       "--print-address=" + std::to_string(ChildProcess::kReadinessDescriptor)};
  options.error = ChildProcess::Stream::Capture;
  options.readiness = true;
  daemon_ = std::make_unique<ChildProcess>(options);
  const std::string line = readinessOf(*daemon_, program_);
  // Behind the comma stands the identity of this daemon; a later one has another.
  address_ = line.substr(0, line.find(','));
}

std::unique_ptr<ChildProcess> startDevelopmentService(const std::string& busAddress,
                                                      const std::string& program,
                                                      const std::vector<std::string>& arguments) {
  ChildProcess::Options options;
  options.arguments = {program, "--ready-fd", std::to_string(ChildProcess::kReadinessDescriptor)};
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  // A trace that the environment asks for is that of this process.
  options.environment = {{"ZQBUS_ADDRESS", busAddress}, {"ZQBUS_TRACE", ""}};
  options.output = ChildProcess::Stream::Discard;
  options.error = ChildProcess::Stream::Capture;
  options.readiness = true;
  auto service = std::make_unique<ChildProcess>(options);
  readinessOf(*service, program);
  return service;
}

}  // namespace zq
