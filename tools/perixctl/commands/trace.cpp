// trace: the file that ZQBUS_TRACE made.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/trace_lines.h"

namespace zq::ctl {
namespace {

/// The entries that the options ask for.
class EntryChoice {
 public:
  explicit EntryChoice(const Arguments& arguments)
      : method_(arguments.text("--filter")),
        failures_(arguments.has("--failures")),
        slower_(arguments.number<uint32_t>("--slower")) {}

  bool takes(const ZQBusTraceEntry& entry) const {
    return (method_.empty() || entry.content.name() == method_) &&
           (!failures_ || isFailure(entry)) && entry.duration >= slower_;
  }

 private:
  const std::string method_;
  const bool failures_;
  const std::chrono::milliseconds slower_;
};

Outcome summaryTable(const std::vector<ZQBusTraceEntry>& trace) {
  return tableOf(summaryOf(trace), {{"method", "METHOD"},
                                    {"calls", "CALLS"},
                                    {"failures", "FAILURES"},
                                    {"medianMs", "MEDIAN MS"},
                                    {"p99Ms", "P99 MS"},
                                    {"longestMs", "LONGEST MS"}});
}

Outcome showTrace(Run& run) {
  std::vector<ZQBusTraceEntry> trace;
  std::string error;
  if (!readZQBusTrace(run.arguments.text("FILE"), trace, error)) {
    throw CommandError(ExitCode::Usage, error);
  }
  const EntryChoice choice(run.arguments);
  Outcome outcome;
  outcome.document = Json::array();
  TraceLines lines;
  std::vector<ZQBusTraceEntry> chosen;
  for (ZQBusTraceEntry& entry : trace) {
    // Also of an entry that is left out: it may name a desktop of a later one.
    const std::string line = lines.line(entry);
    if (!choice.takes(entry)) continue;
    outcome.document.push_back(Json::parse(toJson(entry)));
    outcome.text += line + '\n';
    chosen.push_back(std::move(entry));
  }
  return run.arguments.has("--summary") ? summaryTable(chosen) : outcome;
}

}  // namespace

std::vector<Command> traceCommands() {
  return {
      {"trace",
       {{"FILE", ArgumentKind::File, "The file that ZQBUS_TRACE named"},
        {"--filter", ArgumentKind::Name, "Only this method or event", Presence::Optional},
        {"--failures", ArgumentKind::Flag, "Only what failed or was refused", Presence::Optional},
        {"--slower", ArgumentKind::UInt32, "Only calls that took at least so many milliseconds",
         Presence::Optional},
        {"--summary", ArgumentKind::Flag, "One row for each method", Presence::Optional}},
       "Show a trace of the bus",
       showTrace,
       Asks::Nobody}};
}

}  // namespace zq::ctl
