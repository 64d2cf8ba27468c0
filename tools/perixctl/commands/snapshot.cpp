// snapshot: a running service as a scenario.
#include <cerrno>
#include <cstring>
#include <fstream>

#include "platform/text/escape.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/seen_scenario.h"

namespace zq::ctl {
namespace {

std::string fileText(const SeenScenario& seen) {
  std::string text =
      "# A service as its clients see it, for perix-devservice --scenario. Clients cannot see:\n";
  for (const std::string& part : unseenParts()) {
    text += (part.starts_with(' ') ? "# " : "# - ") + part + '\n';
  }
  if (!seen.gaps.empty()) text += "# This service did not show, or this file cannot hold:\n";
  for (const std::string& gap : seen.gaps) text += "# - " + escaped(gap) + '\n';
  return text + '\n' + devservice::toToml(seen.scenario);
}

/// Throws unless the text is a scenario.
void requireScenario(const std::string& text) {
  std::vector<std::string> mistakes;
  if (devservice::parseScenario(text, "snapshot", mistakes)) return;
  std::string list = "no scenario can be like this service:";
  for (const std::string& mistake : mistakes) list += '\n' + mistake;
  throw CommandError(ExitCode::Refused, list);
}

void writeFile(const std::string& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary);
  out << text << std::flush;
  if (!out) {
    throw CommandError(ExitCode::Refused, file + " cannot be written: " + std::strerror(errno));
  }
}

Outcome takeSnapshot(Run& run) {
  const std::string text = fileText(seenScenario(run.proxy()));
  requireScenario(text);
  const std::string file = run.arguments.text("FILE");
  if (file.empty()) return textOf(text);
  writeFile(file, text);
  return doneOf({{"file", file}}, "snapshot: " + file);
}

}  // namespace

std::vector<Command> snapshotCommands() {
  return {{"snapshot",
           {{"FILE", ArgumentKind::File, "Where to write it; standard output without one",
             Presence::Optional}},
           "Write the service's world as a scenario for perix-devservice",
           takeSnapshot}};
}

}  // namespace zq::ctl
