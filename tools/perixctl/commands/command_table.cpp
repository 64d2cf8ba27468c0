#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {

std::function<Outcome(Run&)> status(int (*operation)(Run&)) {
  return [operation](Run& run) {
    requireDone(operation(run));
    return Outcome{.document = {{"result", 0}}, .text = run.words + ": done\n"};
  };
}

std::function<Outcome(Run&)> answer(std::string (*operation)(Run&)) {
  return [operation](Run& run) {
    const std::string text = operation(run);
    requireAnswer();
    return textOf(text);
  };
}

std::function<Outcome(Run&)> value(const char* member, int (*operation)(Run&)) {
  return [member, operation](Run& run) {
    const int number = operation(run);
    requireAnswer();
    return factsOf({{member, number}});
  };
}

std::function<Outcome(Run&)> report(void (*operation)(Run&)) {
  return [operation](Run& run) {
    operation(run);
    // The bus keeps the order: once this is answered, the service has taken what was sent before.
    run.proxy().GetVmList();
    requireAnswer();
    return Outcome{.document = {{"sent", true}}, .text = run.words + ": sent\n"};
  };
}

std::vector<Command> joined(std::initializer_list<std::vector<Command>> groups) {
  std::vector<Command> all;
  for (const std::vector<Command>& group : groups)
    all.insert(all.end(), group.begin(), group.end());
  return all;
}

const std::vector<Command>& commandTable() {
  static const std::vector<Command> table =
      joined({desktopCommands(), deviceCommands(), printerCommands(), channelCommands(),
              penCommands(), policyCommands(), joystickCommands(), diagnoseCommands(),
              serviceCommands(), monitorCommands(), documentationCommands()});
  return table;
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
      {"policy", "What devices may do"},
      {"property", "Properties per vendor and product"},
      {"turbo", "Turbo configuration per vendor and product"},
      {"camera", "The camera authorisation"},
      {"joystick", "Joysticks"},
      {"joystick mapping", "Button mappings"},
      {"diagnose", "Diagnosis with its progress"},
      {"command", "The service's own commands"},
      {"test", "The service's self-tests"},
      {"service", "The service itself, and what a development service can be made to do"},
      {"service fault", "Calls that go wrong"},
      {"completion", "Completion for shells"},
  };
  return families;
}

Argument desktopArgument() {
  return {"DESKTOP", ArgumentKind::Name, "The desktop's id"};
}

Argument optionalDesktopArgument() {
  return {"DESKTOP", ArgumentKind::Name, "The desktop's id; none for the user's own machine",
          Presence::Optional};
}

Argument vidPidArgument() {
  return {"VID:PID", ArgumentKind::VidPid, "USB vendor and product, as in 046d:c52b"};
}

Argument sourceArgument() {
  return {"SOURCE", ArgumentKind::UInt64, "The service's 64-bit source id of the device"};
}

}  // namespace zq::ctl
