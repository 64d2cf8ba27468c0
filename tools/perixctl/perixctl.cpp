#include "tools/perixctl/perixctl.h"

#include <clocale>
#include <iostream>
#include <memory>

#include "perix/failure.h"
#include "platform/text/escape.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/command_line.h"
#include "tools/perixctl/embedded_world.h"
#include "tools/perixctl/terminal.h"

namespace zq::ctl {
namespace {

Json errorDocument(const CommandError& error) {
  Json content = {{"kind", wordOf(error.code())},
                  {"exitCode", static_cast<int>(error.code())},
                  {"text", error.what()}};
  if (error.result()) content["result"] = *error.result();
  return {{"error", content}};
}

void explainFailure() {
  const PerixFailureReport report = PerixLastFailure();
  if (report.failure == PerixFailure::None) return;
  std::cerr << "perixctl: bus method " << report.method << ": " << escaped(report.text) << "\n";
}

int fail(const CommandError& error, bool json, bool verbose, const Terminal& terminal) {
  if (verbose) explainFailure();
  if (json) {
    terminal.write(renderJson(errorDocument(error)));
  } else {
    std::cerr << "perixctl: " << escapedLines(error.what()) << "\n";
    if (error.code() == ExitCode::Usage) std::cerr << "perixctl: --help says more\n";
  }
  return static_cast<int>(error.code());
}

// The widths of characters are those of the character set, and the service's texts are UTF-8.
void useUtf8() {
  std::setlocale(LC_CTYPE, "C.UTF-8");
}

int runCommand(const CommandLine& line, Terminal& terminal) {
  WaitIndicator indicator;
  std::unique_ptr<EmbeddedWorld> world;
  if (line.globals.embedded) world = std::make_unique<EmbeddedWorld>(line.globals.scenario);
  Run run(line.command->words, line.globals, line.arguments, terminal, indicator);
  const Outcome outcome = line.command->execute(run);
  indicator.end();
  if (!outcome.written) {
    terminal.write(line.globals.json ? renderJson(outcome.document)
                                     : renderText(outcome, terminal.colour()));
  }
  return outcome.exitCode;
}

}  // namespace

int runPerixctl(int argc, const char* const* argv) {
  useUtf8();
  Terminal terminal;
  CommandLine line;
  line.globals.json = asksForJson(argc, argv);
  try {
    line = parseCommandLine(argc, argv);
    if (line.command != nullptr) return runCommand(line, terminal);
    terminal.write(line.information);
    return static_cast<int>(ExitCode::Done);
  } catch (const CommandError& error) {
    return fail(error, line.globals.json, line.globals.verbose, terminal);
  } catch (const std::exception& error) {
    return fail(CommandError(ExitCode::Refused, error.what()), line.globals.json, false, terminal);
  }
}

}  // namespace zq::ctl
