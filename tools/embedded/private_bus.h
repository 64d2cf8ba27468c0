// A private message bus, and the development service on it.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/embedded/child_process.h"

namespace zq {

/// A program that was started and did not get ready: what() is for people.
class NotReady : public std::runtime_error {
 public:
  NotReady(const std::string& text, std::optional<int> status, std::string words)
      : std::runtime_error(text), status_(status), words_(std::move(words)) {}

  /// The status with which it ended; nothing when it was killed for being late.
  const std::optional<int>& status() const { return status_; }
  /// The text that it wrote to standard error.
  const std::string& words() const { return words_; }

 private:
  std::optional<int> status_;
  std::string words_;
};

/// A dbus-daemon that is known to this process only, and to those that it tells the address, with a
/// socket in a new directory of mode 0700 under TMPDIR, or under /tmp without it. It dies with its
/// parent, as ChildProcess says; the directory goes with the object. A directory whose process was
/// killed goes when the next object of any process is made. A forked child may destroy its copy,
/// without effect on the bus.
class PrivateBus {
 public:
  /// Starts the daemon and waits until it listens. Throws std::runtime_error, in words, when there
  /// is no dbus-daemon, and NotReady when it does not come up within 10 s. `daemon` is dbus-daemon,
  /// or a program that takes its options.
  explicit PrivateBus(std::string daemon = "dbus-daemon");
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus();

  /// The address for ZQBUS_ADDRESS; the same for the object's whole life.
  const std::string& address() const { return address_; }
  ChildProcess& process() { return *daemon_; }
  /// The directory of the socket, for files that go with the bus. The bus starts the services whose
  /// activation files stand in its subdirectory "services".
  const std::filesystem::path& directory() const { return directory_; }
  /// Whether this process is a forked child of the process that made the object.
  bool isInherited() const;

  /// SIGKILL: every connection is gone when this returns.
  void kill();
  /// Starts a new daemon at the same address, after kill() or in place of one that runs. Throws as
  /// the constructor does.
  void restart();

  /// Removes the directories of all objects of this process, which ends now: a thread that makes
  /// another object waits for ever. Any thread.
  static void removeAll();

 private:
  void start();

  const std::string program_;
  const int generation_;  ///< of the process that made the object
  std::filesystem::path directory_;
  OwnedDescriptor lock_;  ///< held for as long as the directory is in use
  std::string address_;
  std::unique_ptr<ChildProcess> daemon_;
};

/// Starts the development service `program` on the bus at `busAddress` and waits, at most 10 s,
/// until it is ready. `arguments` follow the program's name. The service's standard error is
/// captured, its standard output is discarded. It does not get ZQBUS_TRACE of this process, whose
/// own trace the file is. Throws NotReady when it does not come up, and std::system_error when it
/// cannot be run.
std::unique_ptr<ChildProcess> startDevelopmentService(const std::string& busAddress,
                                                      const std::string& program,
                                                      const std::vector<std::string>& arguments);

}  // namespace zq
