// A trace of the bus for people: one line for each entry, as strace writes system calls.
#pragma once

#include <string>
#include <vector>

#include "tools/perixctl/outcome.h"
#include "zqbus/trace.h"

namespace zq::ctl {

/// `connectDevice(1, 8) = 7 forbidden by the device's policy   0.41 ms direct`. Long texts, lists
/// and blocks are cut. Texts of the service are escaped.
std::string traceLine(const ZQBusTraceEntry& entry);

/// Whether a call ended without a reply or with an error, or whether the service refused it.
bool isFailure(const ZQBusTraceEntry& entry);

/// A row for each method: how many calls and failures, and the median, the 99th percentile and the
/// longest duration in milliseconds.
Json summaryOf(const std::vector<ZQBusTraceEntry>& trace);

}  // namespace zq::ctl
