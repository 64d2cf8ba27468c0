// A CUPS server, for a client that waits for each answer.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "service/model/model.h"

namespace zq::devservice {

/// Any thread may call. Every operation has a connection of its own and blocks until the server has
/// answered: a few milliseconds as a rule, at most until the server was silent for 20 s. The result
/// is NoPrintServer when the server does not answer, and PrintServerRefused when it refuses for a
/// reason of its own; the reason goes to standard error. Outputs change only when the result is
/// Done.
class CupsServer {
 public:
  /// `address` is a host, host:port or the path of a socket. When it is empty, CUPS_SERVER or the
  /// machine's configuration names the server.
  explicit CupsServer(std::string address) : address_(std::move(address)) {}

  /// Waiting operations, and later ones, end as NoPrintServer.
  void giveUp() { givenUp_ = true; }

  [[nodiscard]] Result printers(std::vector<Printer>& found) const;
  /// "everywhere", for printers that describe themselves, comes first. The server looks through its
  /// driver collection; that may take seconds.
  [[nodiscard]] Result drivers(std::vector<Driver>& found) const;
  /// The server asks a printer with the driver "everywhere" for its abilities. When
  /// that takes longer than `patience`, it adds nothing and the result is HostNotFound.
  [[nodiscard]] Result add(const std::string& name, const std::string& uri,
                           const std::string& driver, std::chrono::milliseconds patience) const;
  [[nodiscard]] Result remove(const std::string& name) const;
  [[nodiscard]] Result setDriver(const std::string& name, const std::string& driver) const;
  [[nodiscard]] Result setPaused(const std::string& name, bool paused) const;
  /// Done when the server has taken the page.
  [[nodiscard]] Result printTestPage(const std::string& name) const;

  /// The name of the server of `address`, for messages.
  static std::string nameOf(const std::string& address);

 private:
  class Connection;

  std::string address_;
  std::atomic<bool> givenUp_ = false;
};

/// The driver for printers that describe themselves over IPP.
inline constexpr char kEverywhere[] = "everywhere";

}  // namespace zq::devservice
