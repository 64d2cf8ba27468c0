#include <algorithm>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {

std::function<Outcome(Run&)> status(int (*operation)(Run&)) {
  return [operation](Run& run) {
    requireDone(operation(run));
    return doneOf({{"result", 0}}, run.words + ": done");
  };
}

std::function<Outcome(Run&)> answer(std::string (*operation)(Run&), const char* none) {
  return [operation, none](Run& run) {
    const std::string text = operation(run);
    requireAnswer();
    return text.empty() ? sentenceOf({{"text", text}}, none) : textOf(text);
  };
}

std::function<Outcome(Run&)> report(void (*operation)(Run&)) {
  return [operation](Run& run) {
    operation(run);
    // The bus keeps the order: once this is answered, the service has taken the messages before it.
    run.proxy().GetVmList();
    requireAnswer();
    return doneOf({{"sent", true}}, run.words + ": sent");
  };
}

std::vector<Command> joined(std::initializer_list<std::vector<Command>> groups) {
  std::vector<Command> all;
  for (const std::vector<Command>& group : groups)
    all.insert(all.end(), group.begin(), group.end());
  return all;
}

const std::vector<Command>& commandTable() {
  static const std::vector<Command> table = joined(
      {desktopCommands(), whyCommands(), deviceCommands(), printerCommands(), channelCommands(),
       penCommands(), policyCommands(), joystickCommands(), diagnoseCommands(), serviceCommands(),
       monitorCommands(), traceCommands(), snapshotCommands(), documentationCommands()});
  return table;
}

const std::vector<Argument>& globalOptions() {
  static const std::vector<Argument> options = {
      {"--json", ArgumentKind::Flag, "Write one JSON document (monitor, pen replay: one a line)"},
      {"--fields", ArgumentKind::Fields, "Show these fields of a table"},
      {"--no-headings", ArgumentKind::Flag, "Show a table without its headings"},
      {"--quiet", ArgumentKind::Flag, "Write nothing that only says that it is done"},
      {"--timeout", ArgumentKind::Seconds, "Wait no longer than this, and end with exit code 3"},
      {"--verbose", ArgumentKind::Flag, "Say where the log is and why an operation failed"},
      {"--trace", ArgumentKind::Flag, "Write what passes on the bus to standard error"},
      {"--host", ArgumentKind::Name, "Use the session bus of another machine, over ssh"},
      {"--embedded", ArgumentKind::Scenario,
       "Run against a private bus and a development service with that scenario"},
  };
  return options;
}

std::vector<Continuation> continuationsOf(const std::string& words) {
  std::vector<Continuation> next;
  const std::string begin = words.empty() ? "" : words + " ";
  for (const Command& command : commandTable()) {
    if (command.hidden || !command.words.starts_with(begin)) continue;
    const std::string rest = command.words.substr(begin.size());
    const std::string word = rest.substr(0, rest.find(' '));
    if (!next.empty() && next.back().word == word) continue;
    std::string help = command.help;
    for (const Family& family : commandFamilies()) {
      if (family.words == begin + word) help = family.help;
    }
    next.push_back({word, help});
  }
  return next;
}

const Command* commandOf(const std::string& words) {
  const auto found = std::find_if(commandTable().begin(), commandTable().end(),
                                  [&](const Command& command) { return command.words == words; });
  return found == commandTable().end() ? nullptr : &*found;
}

const std::vector<Family>& commandFamilies() {
  static const std::vector<Family> families = {
      {"desktop", "Sessions of desktops"},
      {"device", "Devices of this machine"},
      {"device autoconnect", "Types of devices that connect by themselves"},
      {"device network", "Devices reached over the network"},
      {"device usbredir", "Redirected USB devices"},
      {"disk", "Disks"},
      {"printer", "Printers of all kinds"},
      {"printer network", "Network printers"},
      {"printer shared", "Printers that other machines share"},
      {"printer local", "Printers of this machine"},
      {"printer driver", "Printer drivers"},
      {"pipe", "Data channels of a desktop"},
      {"port", "Port channels of a desktop"},
      {"pen", "Pen strokes"},
      {"token", "The token of the redirected drives"},
      {"quality", "Reports about a desktop's stream"},
      {"policy", "Permissions of devices"},
      {"property", "Properties per vendor and product"},
      {"turbo", "Turbo configuration per vendor and product"},
      {"camera", "The camera authorisation"},
      {"joystick", "Joysticks"},
      {"joystick mapping", "Button mappings"},
      {"diagnose", "Diagnosis with its progress"},
      {"command", "The service's own commands"},
      {"test", "The service's self-tests"},
      {"service", "The service itself, and the controls of a development service"},
      {"service fault", "Calls that go wrong"},
      {"completion", "Completion for shells"},
  };
  return families;
}

Argument desktopArgument() {
  return {"DESKTOP", ArgumentKind::Desktop, "The desktop's id"};
}

Argument optionalDesktopArgument() {
  return {"DESKTOP", ArgumentKind::Desktop, "The desktop's id; none for the user's own machine",
          Presence::Optional};
}

Argument deviceArgument() {
  return {"DEVICE", ArgumentKind::Device, "The device: its number, its source id or its name"};
}

Argument printerArgument() {
  return {"PRINTER", ArgumentKind::Printer, "The printer: its number or its name"};
}

Argument vidPidArgument() {
  return {"VID:PID", ArgumentKind::VidPid, "USB vendor and product, as in 046d:c52b"};
}

}  // namespace zq::ctl
