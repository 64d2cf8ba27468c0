// diagnose, command and test: the service about itself.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/mailbox.h"
#include "tools/perixctl/record_documents.h"

namespace zq::ctl {
namespace {

constexpr uint32_t kFinished = 100;
constexpr std::chrono::seconds kStepTimeout{10};
constexpr std::chrono::seconds kResponseTimeout{3};

struct Step {
  std::string desktop;
  uint64_t value;
  uint32_t progress;
  std::string text;
};

/// Hears one diagnosis, for as long as it lives.
class ProgressListener : public PerixDiagnoseNotify {
 public:
  explicit ProgressListener(PerixProxy& proxy) : proxy_(proxy) {}
  ~ProgressListener() override { proxy_.StopDiagnoseNotify(this); }
  ProgressListener(const ProgressListener&) = delete;
  ProgressListener& operator=(const ProgressListener&) = delete;

  void OnDiagnoseProgress(const std::string& desktop, uint64_t value, uint32_t progress,
                          const std::string& text) override {
    steps.put({desktop, value, progress, text});
  }

  Mailbox<Step> steps;

 private:
  PerixProxy& proxy_;
};

// The steps until the end of the diagnosis, shown as they arrive.
Outcome followDiagnosis(Run& run, ProgressListener& listener) {
  Json rows = Json::array();
  uint32_t progress = 0;
  while (progress < kFinished) {
    const std::optional<Step> step = listener.steps.take(kStepTimeout);
    if (!step) throw CommandError(ExitCode::TimedOut, "the diagnosis did not come to its end");
    progress = step->progress;
    run.indicator.progress(progress, step->text);
    rows.push_back({{"progress", progress},
                    {"value", step->value},
                    {"valueText", std::to_string(step->value)},
                    {"desktop", step->desktop},
                    {"text", step->text}});
  }
  return tableOf(std::move(rows), {{"progress", "PERCENT"}, {"text", "STEP"}});
}

Outcome diagnoseDesktop(Run& run) {
  ProgressListener listener(run.proxy());
  requireDone(run.proxy().Diagnose(run.desktop(), &listener));
  return followDiagnosis(run, listener);
}

Outcome diagnoseDevice(Run& run) {
  const uint64_t source = run.deviceSource();
  ProgressListener listener(run.proxy());
  requireDone(run.proxy().DiagnoseDevice(run.desktop(), source, &listener));
  return followDiagnosis(run, listener);
}

using Responses = Mailbox<CmdResponse>;

int takeResponse(uint16_t /*code*/, CmdResponse* response, void* userdata) {
  if (response != nullptr) static_cast<Responses*>(userdata)->put(*response);
  return 0;
}

Outcome runServiceCommand(Run& run) {
  // A response may be on its way when the callback ends, so its mailbox is never destroyed.
  static auto& responses = *new Responses;
  PerixProxy& proxy = run.proxy();
  proxy.RegisterCmdCallback(takeResponse, &responses);
  requireDone(proxy.DoPerixCmd(run.arguments.text("COMMAND")));
  const std::optional<CmdResponse> response = responses.take(kResponseTimeout);
  if (!response) throw CommandError(ExitCode::TimedOut, "the command was not answered");
  const std::string text = textIn(response->text);
  if (response->result != 0) {
    throw CommandError(ExitCode::Refused, "the command failed: " + text, response->result);
  }
  Outcome outcome = textOf(text);
  outcome.document = commandDocument(*response);
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
