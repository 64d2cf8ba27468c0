// A CUPS server and a printer of the test's own; the machine's are never touched.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tools/embedded/child_process.h"

namespace zq {

/// A cupsd without printers that lets anybody do anything, and a printer that speaks IPP on a
/// loopback port and keeps, as files, the PDF documents that it gets. Both stand in a directory
/// under /tmp that goes with the object.
class CupsWorld {
 public:
  /// The programs that are missing, in words; empty when none is.
  static std::string missing();
  /// The printer may look at the message bus `busAddress` in place of the system's. Throws
  /// std::runtime_error, with the words of the program, when a program does not come up.
  explicit CupsWorld(const std::string& busAddress);
  CupsWorld(const CupsWorld&) = delete;
  CupsWorld& operator=(const CupsWorld&) = delete;
  ~CupsWorld();

  ChildProcess& daemon() { return *daemon_; }
  std::string socket() const { return directory_ / "cups.sock"; }
  std::string printerUri() const {
    return "ipp://localhost:" + std::to_string(port_) + "/ipp/print";
  }
  /// Waits for the next document to be there as a whole: its content; empty when none comes.
  std::string nextDocument();

 private:
  void startDaemon();
  void startPrinter(const std::string& busAddress);

  std::filesystem::path directory_;
  OwnedDescriptor watch_;
  const uint16_t port_;
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ChildProcess> printer_;
};

}  // namespace zq
