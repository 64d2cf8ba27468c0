// diagnose, command and test: the service about itself.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/diagnosis.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/service_command.h"

namespace zq::ctl {
namespace {

Outcome stepTable(const std::vector<DiagnosisStep>& steps) {
  Json rows = Json::array();
  for (const DiagnosisStep& step : steps) {
    rows.push_back({{"progress", step.progress},
                    {"value", step.value},
                    {"valueText", std::to_string(step.value)},
                    {"desktop", step.desktop},
                    {"text", step.text}});
  }
  return tableOf(std::move(rows), {{"progress", "PERCENT"}, {"text", "STEP"}});
}

Outcome diagnoseDesktop(Run& run) {
  return stepTable(diagnose(run, run.desktop(), nullptr));
}

Outcome diagnoseDevice(Run& run) {
  const uint64_t source = run.deviceSource();
  return stepTable(diagnose(run, run.desktop(), &source));
}

Outcome runServiceCommand(Run& run) {
  const CmdResponse response = askCommand(run, run.arguments.text("COMMAND"));
  const std::string text = textIn(response.text);
  if (response.result != 0) {
    throw CommandError(ExitCode::Refused, "the command failed: " + text, response.result);
  }
  Outcome outcome = textOf(text);
  outcome.document = commandDocument(response);
  return outcome;
}

}  // namespace

std::vector<Command> diagnoseCommands() {
  return {
      {"diagnose desktop",
       {desktopArgument()},
       "Diagnose a desktop, showing the progress",
       diagnoseDesktop},
      {"diagnose device",
       {desktopArgument(), deviceArgument()},
       "Diagnose one device, showing the progress",
       diagnoseDevice},
      {"command run",
       {{"COMMAND",
         ArgumentKind::Name,
         "The command, in the service's words",
         Presence::Required,
         {},
         "version"}},
       "Have the service run a command and show its answer",
       runServiceCommand},
      {"command help",
       {},
       "Show what 'command run' understands",
       answer([](Run& run) { return run.proxy().GetPerixCmdHelp(); }, "no commands")},
      {"test run",
       {{"NAME", ArgumentKind::Name, "The test's name", Presence::Required, {}, "selftest"}},
       "Run one of the service's self-tests",
       status([](Run& run) { return run.proxy().DoPerixTest(run.arguments.text("NAME")); })},
  };
}

}  // namespace zq::ctl
