// The broker of the buses of tests, and a bus that admits every user.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "tools/embedded/child_process.h"

namespace zq {

/// The program that PERIX_TEST_BUS_DAEMON names, dbus-daemon without it.
inline std::string busDaemon() {
  const char* program = std::getenv("PERIX_TEST_BUS_DAEMON");
  return program != nullptr ? program : "dbus-daemon";
}
inline bool usesDbusBroker() {
  return busDaemon() != "dbus-daemon";
}

class OpenBus {
 public:
  OpenBus();
  ~OpenBus();
  OpenBus(const OpenBus&) = delete;
  OpenBus& operator=(const OpenBus&) = delete;

  std::string address;

 private:
  std::string directory_ = "/tmp/perix-open-bus-XXXXXX";
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace zq
