#include <string>
#include <utility>

#include "platform/text/hex.h"
#include "service/bus/methods.h"
#include "service/model/wire_records.h"
#include "service/scenario/json.h"

namespace zq::devservice {
namespace {

Answer deviceList(const World& world, uint32_t desktop) {
  if (desktop != 0 && world.desktops.find(desktop) == nullptr) {
    return Answer::error("there is no desktop " + std::to_string(desktop));
  }
  std::vector<ZQBusBytes> records;
  if (desktop == 0) {
    for (const auto& [number, device] : world.devices.all()) {
      records.push_back(deviceRecord(device));
    }
  } else {
    for (const Device* device : world.devices.usableIn(desktop)) {
      records.push_back(deviceRecord(*device));
    }
  }
  return Answer::records(records);
}

Answer deviceStatus(const World& world, uint16_t number) {
  const Device* device = world.devices.find(number);
  if (device == nullptr) return Answer::records({});
  return Answer::records({deviceRecord(*device)});
}

Answer setUsbRedirection(World& world, const Call& call) {
  const std::string info = call.text(2);
  if (info.size() != sizeof(uint64_t)) return Result::InvalidArgument;
  return world.desktops.setUsbRedirection(call.desktop(), inHex(info), call.uint16(1));
}

/// A decision whose arguments begin at `first`.
NewDeviceDecision decisionAt(const Call& call, std::size_t first) {
  NewDeviceDecision decision;
  decision.sourceId = call.block64(first);
  decision.type = static_cast<uint16_t>(call.int32(first + 1));
  decision.autoConnect = call.int32(first + 2) != 0;
  decision.popupCard = call.int32(first + 3) != 0;
  return decision;
}

std::vector<Method> connectionMethods(World& world) {
  return {
      {perixMethod("connectDevice"),
       [&world](const Call& call) {
         return world.devices.connect(call.desktop(), call.uint16(1));
       }},
      {perixMethod("disconnectDevice"),
       [&world](const Call& call) {
         return world.devices.disconnect(call.desktop(), call.uint16(1));
       }},
      {perixMethod("connectDeviceBySrcId"),
       [&world](const Call& call) {
         const auto sourceId = static_cast<uint64_t>(call.int64(1));
         return world.devices.connect(call.desktop(), world.devices.numberOf(sourceId));
       }},
      {perixMethod("disconnectDeviceBySrcId"),
       [&world](const Call& call) {
         const auto sourceId = static_cast<uint64_t>(call.int64(1));
         return world.devices.disconnect(call.desktop(), world.devices.numberOf(sourceId));
       }},
      {perixMethod("redirectDevice"),
       [&world](const Call& call) {
         return world.devices.redirect(call.desktop(), call.uint16(1), call.uint16(2));
       }},
      {perixMethod("setAutoConnect"),
       [&world](const Call& call) {
         return world.devices.setAutoConnect(call.uint16(1), call.uint16(2) != 0);
       }},
      {perixMethod("getAutoConnect"),
       [&world](const Call& call) {
         const auto type = static_cast<DeviceType>(call.uint16(1));
         return Answer::number(world.devices.autoConnects(type) ? 1 : 0);
       }},
  };
}

}  // namespace

std::vector<Method> deviceMethods(World& world) {
  std::vector<Method> methods = {
      {perixMethod("getDeviceList"),
       [&world](const Call& call) { return deviceList(world, call.desktop()); }},
      {perixMethod("getDeviceStatus"),
       [&world](const Call& call) { return deviceStatus(world, call.uint16(0)); }},
      {perixMethod("addNetworkDevice"),
       [&world](const Call& call) {
         return world.devices.addNetwork(call.int32(0), call.text(1));
       }},
      {perixMethod("deleteNetworkDevice"),
       [&world](const Call& call) {
         return world.devices.removeNetwork(call.text(0), call.text(1));
       }},
      {perixMethod("setUsbredirStatus"),
       [&world](const Call& call) { return setUsbRedirection(world, call); }},
      {perixMethod("configNewDeviceAsConnect"),
       [&world](const Call& call) {
         return world.activities.configureConnect(call.desktop(), decisionAt(call, 1));
       }},
      {perixMethod("configNewDeviceAsIgnore"),
       [&world](const Call& call) {
         return world.activities.configureIgnore(decisionAt(call, 0));
       }},
      {perixMethod("ConfigUdisks2Command"),
       [&world](const Call& call) {
         return world.activities.diskCommand(call.desktop(), call.block64(1), call.int32(2));
       }},
  };
  for (Method& method : connectionMethods(world)) methods.push_back(std::move(method));
  return methods;
}

}  // namespace zq::devservice
