// A message bus of one's own, and the development service on it.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tools/embedded/child_process.h"

namespace zq {

/// A dbus-daemon that only this process (and whom it tells the address) knows, with a socket in a
/// new directory of mode 0700 under /tmp. It dies with its parent, as ChildProcess says; the
/// directory goes with the object.
class PrivateBus {
 public:
  /// Starts the daemon and waits until it listens. Throws std::runtime_error, in words, when there
  /// is no dbus-daemon or it does not come up within 10 s.
  PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus();

  /// The address for ZQBUS_ADDRESS; the same for the object's whole life.
  const std::string& address() const { return address_; }
  ChildProcess& process() { return *daemon_; }

  /// SIGKILL: every connection is gone when this returns.
  void kill();
  /// Starts a new daemon at the same address, after kill() or in place of one that runs. Throws as
  /// the constructor does.
  void restart();

 private:
  void start();

  std::filesystem::path directory_;
  std::string address_;
  std::unique_ptr<ChildProcess> daemon_;
};

/// Starts the development service `program` on the bus at `busAddress` and waits, at most 10 s,
/// until it is ready. `arguments` follow the program's name. What the service writes to its
/// standard error is captured; its standard output is discarded. Throws std::runtime_error that
/// quotes the service's own words when it does not come up.
std::unique_ptr<ChildProcess> startDevelopmentService(const std::string& busAddress,
                                                      const std::string& program,
                                                      const std::vector<std::string>& arguments);

}  // namespace zq
