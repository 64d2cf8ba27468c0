#include <string>

#include "service/bus/methods.h"
#include "service/model/wire_records.h"

namespace zq::devservice {
namespace {

/// The vendor and product of a call, which stand behind the leading zero.
VidPid vidPid(const Call& call) {
  return {call.uint16(1), call.uint16(2)};
}

template <typename Value>
Value valueOr(const std::map<VidPid, Value>& values, VidPid id, Value otherwise) {
  const auto found = values.find(id);
  return found == values.end() ? otherwise : found->second;
}

Answer listPolicies(const World& world) {
  std::vector<ZQBusBytes> records;
  for (const auto& [id, policy] : world.devices.policies()) {
    records.push_back(policyRecord(id, policy));
  }
  return Answer::records(records);
}

Answer listJoysticks(const World& world) {
  std::vector<ZQBusBytes> records;
  for (const Device* joystick : world.devices.ofType(DeviceType::Joystick)) {
    records.push_back(deviceRecord(*joystick));
  }
  return Answer::records(records);
}

Answer effectiveProperty(const World& world, VidPid id) {
  const int32_t ofMachine = valueOr(world.settings.defaults, id, 0);
  return Answer::number(valueOr(world.settings.properties, id, ofMachine));
}

std::vector<Method> joystickMethods(World& world) {
  return {
      {perixMethod("getJoystickDevList"), [&world](const Call&) { return listJoysticks(world); }},
      {perixMethod("getJoystickMappingList"),
       [&world](const Call& call) {
         return Answer::text(valueOr(world.settings.joystickMappings, vidPid(call), std::string()));
       }},
      {perixMethod("setJoystickMapping"),
       [&world](const Call& call) {
         world.settings.joystickMappings[vidPid(call)] = call.text(3);
         return Result::Done;
       }},
      {perixMethod("calibrationJoystick"),
       [&world](const Call& call) { return world.activities.calibrate(vidPid(call)); }},
  };
}

}  // namespace

std::vector<Method> settingMethods(World& world) {
  std::vector<Method> methods = {
      {perixMethod("setLocalPolicy"),
       [&world](const Call& call) {
         return world.devices.setPolicy(call.uint16(0), call.uint16(1), call.text(2));
       }},
      {perixMethod("setDevicePropertyWithVidPid"),
       [&world](const Call& call) {
         world.settings.properties[vidPid(call)] = call.int32(4);
         return Result::Done;
       }},
      {perixMethod("getDevicePropertyWithVidPid"),
       [&world](const Call& call) { return effectiveProperty(world, vidPid(call)); }},
      {perixMethod("getLocalDevicePropertyWithVidPid"),
       [&world](const Call& call) {
         return Answer::number(valueOr(world.settings.defaults, vidPid(call), 0));
       }},
      {perixMethod("getTurboConfigWithVidPid"),
       [&world](const Call& call) {
         return Answer::text(valueOr(world.settings.turbo, vidPid(call), std::string()));
       }},
      {perixMethod("setTurboConfigWithVidPid"),
       [&world](const Call& call) {
         world.settings.turbo[vidPid(call)] = call.text(3);
         return Result::Done;
       }},
      {perixMethod("resetAllDeviceProperty"),
       [&world](const Call&) {
         world.settings.properties.clear();
         return Result::Done;
       }},
      {perixMethod("CheckCameraAuthStat"),
       [&world](const Call&) { return Answer::number(world.settings.cameraAuthorized ? 1 : 0); }},
      {perixMethod("getPolicyListByVidPid"), [&world](const Call&) { return listPolicies(world); }},
  };
  for (Method& method : joystickMethods(world)) methods.push_back(std::move(method));
  return methods;
}

}  // namespace zq::devservice
