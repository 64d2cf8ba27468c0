// trace: the file that ZQBUS_TRACE made.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/trace_lines.h"

namespace zq::ctl {
namespace {

/// The entries that the options ask for.
std::vector<ZQBusTraceEntry> chosen(const Run& run) {
  std::vector<ZQBusTraceEntry> trace;
  std::string error;
  if (!readZQBusTrace(run.arguments.text("FILE"), trace, error)) {
    throw CommandError(ExitCode::Usage, error);
  }
  const std::string method = run.arguments.text("--filter");
  const std::chrono::milliseconds slower(
      run.arguments.has("--slower") ? run.arguments.number<uint32_t>("--slower") : 0);
  std::erase_if(trace, [&](const ZQBusTraceEntry& entry) {
    return (!method.empty() && entry.content.name() != method) ||
           (run.arguments.has("--failures") && !isFailure(entry)) || entry.duration < slower;
  });
  return trace;
}

Outcome showTrace(Run& run) {
  const std::vector<ZQBusTraceEntry> trace = chosen(run);
  if (run.arguments.has("--summary")) {
    return tableOf(summaryOf(trace), {{"method", "METHOD"},
                                      {"calls", "CALLS"},
                                      {"failures", "FAILURES"},
                                      {"medianMs", "MEDIAN MS"},
                                      {"p99Ms", "P99 MS"},
                                      {"longestMs", "LONGEST MS"}});
  }
  Outcome outcome;
  outcome.document = Json::array();
  for (const ZQBusTraceEntry& entry : trace) {
    outcome.document.push_back(Json::parse(toJson(entry)));
    outcome.text += traceLine(entry) + '\n';
  }
  return outcome;
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
