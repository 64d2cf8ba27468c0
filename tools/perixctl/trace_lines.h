// A trace of the bus for people: one line for each entry, as strace writes system calls.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "perix/service_methods.h"
#include "tools/perixctl/outcome.h"
#include "zqbus/trace.h"

namespace zq::ctl {

/// The lines of the entries of one trace, which it is given in their order: it knows the names of
/// the desktops whose ids it has seen in calls.
class TraceLines {
 public:
  /// `connectDevice(desktop=1 "office-1", device=8) = 7 forbidden by the device's policy   0.41 ms
  /// direct`. Long texts, lists and blocks are cut. Texts of the service are escaped.
  std::string line(const ZQBusTraceEntry& entry);

 private:
  void learnDesktops(const ZQBusTraceEntry& entry);
  std::string contentIn(const ZQBusTraceEntry& entry) const;
  std::string argumentsIn(const ZQBusMessage& message, const ServiceMethod* form) const;

  std::map<int32_t, std::string> desktops_;
};

/// Whether a call ended without a reply or with an error, or whether the service refused it.
bool isFailure(const ZQBusTraceEntry& entry);

/// A row for each method: how many calls and failures, and the median, the 99th percentile and the
/// longest duration in milliseconds.
Json summaryOf(const std::vector<ZQBusTraceEntry>& trace);

}  // namespace zq::ctl
