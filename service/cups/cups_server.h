// A CUPS server, as a client that waits for its answers sees it.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "service/model/model.h"

namespace zq::devservice {

/// Any thread may call; every operation has a connection of its own and blocks until the server
/// answered, as a rule for milliseconds, at most until the server was silent for 20 s. Results:
/// NoPrintServer when it does not answer, PrintServerRefused when it refuses for a reason of its
/// own, which is written to standard error. Outputs are untouched unless the result is Done.
class CupsServer {
 public:
  /// `address` is a host, host:port or the path of a socket; empty for the one that CUPS_SERVER or
  /// the machine's configuration names.
  explicit CupsServer(std::string address) : address_(std::move(address)) {}

  /// Ends what waits, and what comes later, as NoPrintServer.
  void giveUp() { givenUp_ = true; }

  [[nodiscard]] Result printers(std::vector<Printer>& found) const;
  /// "everywhere", for printers that describe themselves, comes first. The server looks through its
  /// driver collection, which may take it seconds.
  [[nodiscard]] Result drivers(std::vector<Driver>& found) const;
  /// The server asks a printer with the driver "everywhere" for its abilities. HostNotFound, and
  /// nothing is added, when that takes longer than `patience`.
  [[nodiscard]] Result add(const std::string& name, const std::string& uri,
                           const std::string& driver, std::chrono::milliseconds patience) const;
  [[nodiscard]] Result remove(const std::string& name) const;
  [[nodiscard]] Result setDriver(const std::string& name, const std::string& driver) const;
  [[nodiscard]] Result setPaused(const std::string& name, bool paused) const;
  /// Done when the server took the page.
  [[nodiscard]] Result printTestPage(const std::string& name) const;

  /// The server that `address` means, for people.
  static std::string nameOf(const std::string& address);

 private:
  class Connection;

  std::string address_;
  std::atomic<bool> givenUp_ = false;
};

/// The driver for printers that describe themselves over IPP.
inline constexpr char kEverywhere[] = "everywhere";

}  // namespace zq::devservice
