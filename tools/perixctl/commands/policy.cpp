// policy, property, turbo and camera: the settings by which the service treats devices.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/service_words.h"

namespace zq::ctl {
namespace {

Outcome listPolicies(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto policies = proxy.GetPolicyListByVidPid();
  requireAnswer();
  return policyTable(proxy, policies);
}

int setPolicy(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto devices = run.deviceRecords();
  auto device = recordIn<CommonDevice>(devices.front());
  proxy.FreeDeviceList(devices);
  device.localPolicy = run.arguments.number<uint16_t>("POLICY");
  return proxy.SetDeviceLocalPolicy(&device);
}

int setProperty(Run& run) {
  const VidPid id = run.arguments.vidPid("VID:PID");
  return run.proxy().SetDevicePropertyWithVidPid(id.vid, id.pid,
                                                 run.arguments.number<uint16_t>("PROPERTY"),
                                                 run.arguments.number<int32_t>("VALUE"));
}

Outcome getProperty(Run& run) {
  const VidPid id = run.arguments.vidPid("VID:PID");
  const auto property = run.arguments.number<uint16_t>("PROPERTY");
  const int value = run.arguments.has("--local")
                        ? run.proxy().GetLocalDevicePropertyWithVidPid(id.vid, id.pid, property)
                        : run.proxy().GetDevicePropertyWithVidPid(id.vid, id.pid, property);
  requireAnswer();
  return factsOf({{"value", value}});
}

Outcome cameraStatus(Run& run) {
  const int status = run.proxy().CheckCameraAuthStat();
  requireAnswer();
  const std::string word = wordFor(kCameraStates, status, "unknown");
  return sentenceOf({{"status", status}, {"state", word}},
                    "cameras are " + word + " (status " + std::to_string(status) + ")");
}

const Argument kProperty{"PROPERTY", ArgumentKind::UInt16, "The property, the service's number"};

}  // namespace

std::vector<Command> policyCommands() {
  return {
      {"policy list", {}, "List the policies per vendor and product", listPolicies},
      {"policy set",
       {deviceArgument(),
        {.name = "POLICY", .kind = ArgumentKind::Word, .help = "The policy", .words = kPolicies}},
       "Set the local policy of a device",
       status(setPolicy)},
      {"property get",
       {vidPidArgument(),
        kProperty,
        {"--local", ArgumentKind::Flag, "The property as stored on this machine",
         Presence::Optional}},
       "Show a property of a vendor and product",
       getProperty},
      {"property set",
       {vidPidArgument(), kProperty, {"VALUE", ArgumentKind::Int32, "The new value"}},
       "Set a property of a vendor and product",
       status(setProperty)},
      {"property reset", {}, "Reset all properties of all devices", status([](Run& run) {
         return run.proxy().ResetAllDeviceProperty();
       })},
      {"turbo get",
       {vidPidArgument()},
       "Show the turbo configuration of a vendor and product",
       answer(
           [](Run& run) {
             const VidPid id = run.arguments.vidPid("VID:PID");
             return run.proxy().GetTurboConfigWithVidPid(id.vid, id.pid);
           },
           "no turbo configuration")},
      {"turbo set",
       {vidPidArgument(),
        {"TEXT",
         ArgumentKind::Text,
         "The configuration, in the service's format",
         Presence::Required,
         {},
         "fps=60"}},
       "Set the turbo configuration of a vendor and product",
       status([](Run& run) {
         const VidPid id = run.arguments.vidPid("VID:PID");
         return run.proxy().SetTurboConfigWithVidPid(id.vid, id.pid, run.arguments.text("TEXT"));
       })},
      {"camera status", {}, "Show the state of the camera authorisation", cameraStatus},
  };
}

}  // namespace zq::ctl
