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
      {"getJoystickDevList", "zero:i", "count:i record:ay",
       [&world](const Call&) { return listJoysticks(world); }},
      {"getJoystickMappingList", "zero:i vid:q pid:q", "mapping:s",
       [&world](const Call& call) {
         return Answer::text(valueOr(world.settings.joystickMappings, vidPid(call), std::string()));
       }},
      {"setJoystickMapping", "zero:i vid:q pid:q mapping:ay", "result:i",
       [&world](const Call& call) {
         world.settings.joystickMappings[vidPid(call)] = call.text(3);
         return Result::Done;
       }},
      {"calibrationJoystick", "zero:i vid:q pid:q", "result:i",
       [&world](const Call& call) { return world.activities.calibrate(vidPid(call)); }},
  };
}

}  // namespace

std::vector<Method> settingMethods(World& world) {
  std::vector<Method> methods = {
      {"setLocalPolicy", "device:q policy:q name:ay detail:ay", "result:i",
       [&world](const Call& call) {
         return world.devices.setPolicy(call.uint16(0), call.uint16(1), call.text(2));
       }},
      {"setDevicePropertyWithVidPid", "zero:i vid:q pid:q property:i value:i", "result:i",
       [&world](const Call& call) {
         world.settings.properties[vidPid(call)] = call.int32(4);
         return Result::Done;
       }},
      {"getDevicePropertyWithVidPid", "zero:i vid:q pid:q pidAgain:i", "value:i",
       [&world](const Call& call) { return effectiveProperty(world, vidPid(call)); }},
      {"getLocalDevicePropertyWithVidPid", "zero:i vid:q pid:q pidAgain:i", "value:i",
       [&world](const Call& call) {
         return Answer::number(valueOr(world.settings.defaults, vidPid(call), 0));
       }},
      {"getTurboConfigWithVidPid", "zero:i vid:q pid:q", "config:s",
       [&world](const Call& call) {
         return Answer::text(valueOr(world.settings.turbo, vidPid(call), std::string()));
       }},
      {"setTurboConfigWithVidPid", "zero:i vid:q pid:q config:ay", "result:i",
       [&world](const Call& call) {
         world.settings.turbo[vidPid(call)] = call.text(3);
         return Result::Done;
       }},
      {"resetAllDeviceProperty", "zero:i", "result:i",
       [&world](const Call&) {
         world.settings.properties.clear();
         return Result::Done;
       }},
      {"CheckCameraAuthStat", "", "state:i",
       [&world](const Call&) { return Answer::number(world.settings.cameraAuthorized ? 1 : 0); }},
      {"getPolicyListByVidPid", "zero:i", "count:i record:ay",
       [&world](const Call&) { return listPolicies(world); }},
  };
  for (Method& method : joystickMethods(world)) methods.push_back(std::move(method));
  return methods;
}

}  // namespace zq::devservice
