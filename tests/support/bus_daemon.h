// Which broker the buses of a test have.
#pragma once

#include <cstdlib>
#include <string>

namespace zq {

/// The program that PERIX_TEST_BUS_DAEMON names, dbus-daemon without it.
inline std::string busDaemon() {
  const char* program = std::getenv("PERIX_TEST_BUS_DAEMON");
  return program != nullptr ? program : "dbus-daemon";
}

inline bool usesDbusBroker() {
  return busDaemon() != "dbus-daemon";
}

}  // namespace zq
