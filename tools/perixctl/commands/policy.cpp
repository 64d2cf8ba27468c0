// policy, property, turbo and camera: how the service treats devices.
#include <memory>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"

namespace zq {
namespace {

Outcome listPolicies(Call& call) {
  PerixProxy& proxy = call.proxy();
  const auto policies = proxy.GetPolicyListByVidPid();
  requireAnswer();
  return policyTable(proxy, policies);
}

int setPolicy(Call& call) {
  PerixProxy& proxy = call.proxy();
  const auto devices = proxy.GetDeviceStatus(call.arguments.number<uint16_t>("NUMBER"));
  requireAnswer();
  if (devices.empty()) {
    throw CommandError(ExitCode::NotFound, "no device " + call.arguments.text("NUMBER"));
  }
  auto device = recordIn<CommonDevice>(devices.front());
  proxy.FreeDeviceList(devices);
  device.localPolicy = call.arguments.number<uint16_t>("POLICY");
  return proxy.SetDeviceLocalPolicy(&device);
}

int setProperty(Call& call) {
  const VidPid id = call.arguments.vidPid("VID:PID");
  return call.proxy().SetDevicePropertyWithVidPid(id.vid, id.pid,
                                                  call.arguments.number<uint16_t>("PROPERTY"),
                                                  call.arguments.number<int32_t>("VALUE"));
}

int getProperty(Call& call) {
  const VidPid id = call.arguments.vidPid("VID:PID");
  const auto property = call.arguments.number<uint16_t>("PROPERTY");
  return call.arguments.has("--local")
             ? call.proxy().GetLocalDevicePropertyWithVidPid(id.vid, id.pid, property)
             : call.proxy().GetDevicePropertyWithVidPid(id.vid, id.pid, property);
}

const Argument kProperty{"PROPERTY", ArgumentKind::UInt16, "The property, the service's number"};

}  // namespace

std::vector<Command> policyCommands() {
  return {
      {"policy list", {}, "List the policies per vendor and product", listPolicies},
      {"policy set",
       {{"NUMBER", ArgumentKind::UInt16, "The device's number"},
        {"POLICY", ArgumentKind::UInt16, "The service's number: 0 ask, 1 allow, 2 forbid"}},
       "Set the local policy of a device",
       status(setPolicy)},
      {"property get",
       {vidPidArgument(),
        kProperty,
        {"--local", ArgumentKind::Flag, "The property as stored on this machine",
         Presence::Optional}},
       "Show a property of a vendor and product",
       value("value", getProperty)},
      {"property set",
       {vidPidArgument(), kProperty, {"VALUE", ArgumentKind::Int32, "The new value"}},
       "Set a property of a vendor and product",
       status(setProperty)},
      {"property reset", {}, "Reset all properties of all devices", status([](Call& call) {
         return call.proxy().ResetAllDeviceProperty();
       })},
      {"turbo get",
       {vidPidArgument()},
       "Show the turbo configuration of a vendor and product",
       answer([](Call& call) {
         const VidPid id = call.arguments.vidPid("VID:PID");
         return call.proxy().GetTurboConfigWithVidPid(id.vid, id.pid);
       })},
      {"turbo set",
       {vidPidArgument(),
        {"TEXT", ArgumentKind::Text, "The configuration, in the service's format"}},
       "Set the turbo configuration of a vendor and product",
       status([](Call& call) {
         const VidPid id = call.arguments.vidPid("VID:PID");
         return call.proxy().SetTurboConfigWithVidPid(id.vid, id.pid, call.arguments.text("TEXT"));
       })},
      {"camera status",
       {},
       "Show the state of the camera authorisation",
       value("status", [](Call& call) { return call.proxy().CheckCameraAuthStat(); })},
  };
}

}  // namespace zq
