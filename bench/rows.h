// The families of rows. Each measures and prints its own; all need a bus at ZQBUS_ADDRESS with the
// bench service and the raw service on it, and throw std::runtime_error when what they measure
// fails.
#pragma once

#include <optional>
#include <string>

#include "bench/raw_bus.h"
#include "bench/report.h"

namespace zq::bench {

/// ConnectDevice over a direct line, compared with a bare socket and with the peers. `bare` is one
/// end of a RawPair.
void addDirectCallRows(Report& report, const std::string& program, sd_bus* bare);
/// ConnectDevice through the bus compared with raw sd-bus.
void addBrokerCallRows(Report& report);
/// Calls of four threads compared with calls of one thread; `target` is for the ratio of their
/// rates on more than one CPU.
void addThreadRow(Report& report, double target);
/// GetDeviceList of a long list over a direct line compared with raw sd-bus through the daemon.
void addDirectListRows(Report& report, sd_bus* bare);
/// GetDeviceList of a long list through the bus compared with allocating and copying its records.
void addBrokerListRows(Report& report);
/// Events over a direct line compared with raw sd-bus through the daemon: in a flood, and singly.
void addEventRows(Report& report);
/// SendPenData compared with an allocation, the copies and a log line.
void addPenRows(Report& report);
/// ConnectDevice while a trace is written, and when it has ended, compared with the same call of a
/// proxy that connected before the trace.
void addTraceRows(Report& report);
/// The first getInstance() compared with a raw connection; `program` is the path of this program.
void addStartupRow(Report& report, const std::string& program, std::optional<Target> target);

/// In a fresh process: measures its one start (`side` is "proxy" or "raw") and writes the
/// microseconds as a line to the readiness descriptor. Returns an exit code.
[[nodiscard]] int measureStartup(const std::string& side);

}  // namespace zq::bench
