// A CUPS server and a printer of the test's own; the machine's are never touched.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tools/embedded/child_process.h"

namespace zq {

/// What is missing for the classes below, in words; empty when nothing is.
std::string whyNoCups();

/// A new directory under /tmp that goes with the object.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// A cupsd without printers that lets anybody do anything, on a socket in a directory of its own.
/// Throws std::runtime_error, with the daemon's own words, when it does not come up.
class PrivateCups {
 public:
  PrivateCups();
  PrivateCups(const PrivateCups&) = delete;
  PrivateCups& operator=(const PrivateCups&) = delete;
  ~PrivateCups();

  std::string socket() const { return directory_.path() / "cups.sock"; }
  ChildProcess& process() { return *daemon_; }

 private:
  TemporaryDirectory directory_;
  std::unique_ptr<ChildProcess> daemon_;
};

/// A printer that speaks IPP on a loopback port and keeps, as files, the PDF documents that it
/// gets.
class IppPrinter {
 public:
  /// `busAddress` is a message bus that the program may look at in place of the system's.
  explicit IppPrinter(const std::string& busAddress);

  std::string uri() const { return "ipp://localhost:" + std::to_string(port_) + "/ipp/print"; }
  /// Waits for the next document to be there as a whole: its content; empty when none comes.
  std::string nextDocument();

 private:
  TemporaryDirectory spool_;
  OwnedDescriptor watch_;
  uint16_t port_;
  std::unique_ptr<ChildProcess> program_;
};

/// A loopback port on which nothing listens.
uint16_t freePort();

}  // namespace zq
