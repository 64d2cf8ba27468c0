#include "tools/perixctl/perixctl.h"

#include <algorithm>
#include <clocale>
#include <csignal>
#include <iostream>
#include <memory>
#include <new>

#include "perix/failure.h"
#include "platform/text/escape.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/command_line.h"
#include "tools/perixctl/embedded_world.h"
#include "tools/perixctl/remote_host.h"
#include "tools/perixctl/terminal.h"
#include "tools/perixctl/trace_lines.h"

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
  std::cerr << "perixctl: ";
  if (!report.method.empty()) std::cerr << "bus method " << report.method << ", ";
  std::cerr << report.total.count() / 1000 << " ms: " << escaped(report.text) << "\n";
}

// The widths of characters are those of the character set, and the service's texts are UTF-8.
void useUtf8() {
  std::setlocale(LC_CTYPE, "C.UTF-8");
}

void complain(const std::string& text) {
  std::cerr << "perixctl: " << escapedLines(text) << "\n";
}

int fail(const CommandError& error, const Globals& globals, const Terminal& terminal) {
  if (globals.verbose) explainFailure();
  if (globals.json) {
    try {
      terminal.write(renderJson(errorDocument(error)));
    } catch (const CommandError& unwritable) {
      complain(unwritable.what());
    }
  } else {
    complain(error.what());
  }
  return static_cast<int>(error.code());
}

TableStyle styleFor(const Globals& globals, const Terminal& terminal) {
  return {terminal.colour(), !globals.noHeadings, terminal.width(), globals.fields};
}

void write(const Outcome& outcome, const Globals& globals, const Terminal& terminal) {
  if (outcome.written || (globals.quiet && outcome.confirmation && !globals.json)) return;
  terminal.write(globals.json ? renderJson(outcome.document)
                              : renderText(outcome, styleFor(globals, terminal)));
}

void traceToStandardError() {
  setZQBusTraceSink([lines = TraceLines()](const ZQBusTraceEntry& entry) mutable {
    std::cerr << lines.line(entry) + '\n' << std::flush;
  });
}

int runCommand(const CommandLine& line, Terminal& terminal) {
  const auto tellTimeOut = [&] {
    const auto seconds = std::to_string(line.globals.timeout->count());
    fail({ExitCode::TimedOut, "not done after " + seconds + " s (--timeout)"},
         {.json = line.globals.json}, terminal);
  };
  if (line.globals.trace) traceToStandardError();
  EarlyEnd earlyEnd(line.globals.timeout, tellTimeOut);
  WaitIndicator indicator(line.globals.quiet);
  if (!line.globals.host.empty()) useRemoteHost(line.globals.host);
  std::unique_ptr<EmbeddedWorld> world;
  if (line.globals.embedded) {
    earlyEnd.before(PrivateBus::removeAll);
    world = std::make_unique<EmbeddedWorld>(line.globals.scenario);
  }
  Run run(line.command->words, line.globals, line.arguments, terminal, indicator, earlyEnd);
  const Outcome outcome = line.command->execute(run);
  indicator.end();
  write(outcome, line.globals, terminal);
  return outcome.exitCode;
}

}  // namespace

int runPerixctl(int argc, const char* const* argv) {
  // The caller may ignore the signal, and then the ends of children are lost.
  std::signal(SIGCHLD, SIG_DFL);
  Terminal terminal;
  useUtf8();
  const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  CommandLine line;
  // Also for a command line that is wrong.
  line.globals.json = std::find(words.begin(), words.end(), "--json") != words.end();
  try {
    line = parseCommandLine(words);
    if (line.command != nullptr) return runCommand(line, terminal);
    terminal.write(line.information);
    return static_cast<int>(ExitCode::Done);
  } catch (const CommandError& error) {
    return fail(error, line.globals, terminal);
  } catch (const std::bad_alloc&) {
    return fail({ExitCode::Refused, "there is no memory"}, line.globals, terminal);
  } catch (const std::exception& error) {
    // The texts of libraries are for users of --verbose alone.
    const std::string more = line.globals.verbose ? std::string(": ") + error.what() : "";
    return fail({ExitCode::Refused, "an internal error" + more}, line.globals, terminal);
  }
}

}  // namespace zq::ctl
