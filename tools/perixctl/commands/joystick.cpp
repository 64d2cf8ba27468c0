// joystick: the list, button mappings, calibration.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"

namespace zq::ctl {
namespace {

Outcome listJoysticks(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto joysticks = proxy.GetJoystickDevList();
  requireAnswer();
  return deviceTable(proxy, joysticks);
}

}  // namespace

std::vector<Command> joystickCommands() {
  return {
      {"joystick list", {}, "List the joysticks", listJoysticks},
      {"joystick mapping get",
       {vidPidArgument()},
       "Show a joystick's button mapping",
       answer(
           [](Run& run) {
             const VidPid id = run.arguments.vidPid("VID:PID");
             return run.proxy().GetJoystickMappingList(id.vid, id.pid);
           },
           "no button mapping")},
      {"joystick mapping set",
       {vidPidArgument(),
        {"MAPPING",
         ArgumentKind::Text,
         "The mapping, in the service's format",
         Presence::Required,
         {},
         "b=2"}},
       "Set a joystick's button mapping",
       status([](Run& run) {
         const VidPid id = run.arguments.vidPid("VID:PID");
         return run.proxy().SetJoystickMapping(id.vid, id.pid, run.arguments.text("MAPPING"));
       })},
      {"joystick calibrate",
       {vidPidArgument()},
       "Start a calibration; its outcome follows as an event",
       status([](Run& run) {
         const VidPid id = run.arguments.vidPid("VID:PID");
         return run.proxy().CalibrationJoystick(id.vid, id.pid);
       })},
  };
}

}  // namespace zq::ctl
