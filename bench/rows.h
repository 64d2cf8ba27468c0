// The families of rows. Each measures and prints its own; all need a bus at ZQBUS_ADDRESS with the
// bench service and the raw service on it, and throw std::runtime_error when what they measure
// fails.
#pragma once

#include <optional>
#include <string>

#include "bench/report.h"

namespace zq::bench {

/// ConnectDevice over a direct line beside a bare socket and beside the peers that were built.
void addDirectCallRows(Report& report, const std::string& program);
/// ConnectDevice through the bus beside raw sd-bus.
void addBrokerCallRows(Report& report);
/// Calls of four threads beside those of one; `bar` is for their rate, where they may run beside
/// each other.
void addThreadRow(Report& report, double bar);
/// GetDeviceList of a long list over a direct line beside raw sd-bus through the daemon.
void addDirectListRows(Report& report);
/// GetDeviceList of a long list through the bus beside allocating and copying its records.
void addBrokerListRows(Report& report);
/// Events over a direct line beside raw sd-bus through the daemon: in a flood, and one by one.
void addEventRows(Report& report);
/// SendPenData beside an allocation, the copies and a log line.
void addPenRows(Report& report);
/// The first getInstance() beside opening a raw connection; `program` is this program's path.
void addStartupRow(Report& report, const std::string& program, std::optional<Bar> bar);

/// In a fresh process: measures its one start (`side` is "proxy" or "raw") and writes the
/// microseconds as a line to the readiness descriptor. Returns an exit code.
[[nodiscard]] int measureStartup(const std::string& side);

}  // namespace zq::bench
