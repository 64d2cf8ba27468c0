// The families of rows. Each measures and prints its own; all need a bus at ZQBUS_ADDRESS with the
// bench service on it, and throw std::runtime_error when what they measure fails.
#pragma once

#include <string>

#include "bench/report.h"

namespace zq::bench {

/// ConnectDevice beside raw sd-bus and beside a bare socket; calls from four threads.
void addCallRows(Report& report);
/// GetDeviceList of a long list beside allocating and copying its records.
void addListRows(Report& report);
/// SendPenData beside an allocation, the copies and a log line.
void addPenRows(Report& report);
/// The first getInstance() beside opening a raw connection; `program` is this program's path.
void addStartupRows(Report& report, const std::string& program);

/// In a fresh process: measures its one start (`side` is "proxy" or "raw") and writes the
/// microseconds as a line to the readiness descriptor. Returns an exit code.
[[nodiscard]] int measureStartup(const std::string& side);

}  // namespace zq::bench
