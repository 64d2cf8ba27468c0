/// @file
/// The methods and events of the service as they stand on the bus: names, arguments, answers.
///
/// Clients call PerixProxy and need none of this. It serves a program that plays the service, and a
/// program that shows traces: introspection, the check of arguments and the names in traces are
/// made from this table.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace zq {

/// A method, or an event, whose arguments stand in `in`.
struct ServiceMethod {
  const char* name;  ///< on the bus
  /// Each argument is "name:signature", with blanks between; the signature is q, i, x, s or ay. A
  /// '?' in front of an argument says that it may be absent, a '*' begins a group that comes any
  /// number of times.
  const char* in;
  /// The answer; a list has its number of records first. A first value that is called "result" is a
  /// ServiceResult (perix/service_values.h).
  const char* out = "";
  bool secret = false;  ///< logs and traces show the arguments by their sizes alone
};

/// The methods of the service.
inline constexpr std::array kServiceMethods = {
    // Desktops
    ServiceMethod{"connectVm", "desktop:i systemType:i shareMode:i connectParam:i", "result:i"},
    ServiceMethod{"disconnectVm", "desktop:i", "result:i"},
    ServiceMethod{"startManager", "desktop:i", "result:i"},
    ServiceMethod{"getVmList", "zero:i", "count:i name:s desktop:i"},
    ServiceMethod{"getVmListSize", "name:s", "desktop:i"},
    ServiceMethod{"onFocusChanged", "desktop:i gained:i window:x", "result:i"},
    ServiceMethod{"createPipe", "desktop:i count:i *pipe:ay", "result:i"},
    ServiceMethod{"destroyPipe", "desktop:i count:i *pipe:ay", "result:i"},
    ServiceMethod{"setPortChannelStatus", "desktop:i port:i status:i", "result:i"},
    ServiceMethod{"updateDriveToken", "token:ay", "result:i", true},
    ServiceMethod{"setBwInfo", "desktop:i value1:x value2:x", "result:i"},
    ServiceMethod{"setRtcQosInfo", "desktop:i type:x ?value:x", "result:i"},
    // Devices
    ServiceMethod{"connectDevice", "desktop:i device:q", "result:i"},
    ServiceMethod{"disconnectDevice", "desktop:i device:q", "result:i"},
    ServiceMethod{"connectDeviceBySrcId", "desktop:i sourceId:x", "result:i"},
    ServiceMethod{"disconnectDeviceBySrcId", "desktop:i sourceId:x", "result:i"},
    ServiceMethod{"redirectDevice", "desktop:i device:q mode:q", "result:i"},
    ServiceMethod{"setAutoConnect", "zero:i type:q on:q", "result:i"},
    ServiceMethod{"getAutoConnect", "zero:i type:q", "on:i"},
    ServiceMethod{"getDeviceList", "desktop:i", "count:i record:ay"},
    ServiceMethod{"getDeviceStatus", "device:q", "count:i record:ay"},
    ServiceMethod{"addNetworkDevice", "type:i address:ay", "result:i"},
    ServiceMethod{"deleteNetworkDevice", "name:ay address:ay", "result:i"},
    ServiceMethod{"setUsbredirStatus", "desktop:i status:q device:ay", "result:i"},
    ServiceMethod{"configNewDeviceAsConnect",
                  "desktop:i sourceId:ay type:i autoConnect:i popupCard:i", "result:i"},
    ServiceMethod{"configNewDeviceAsIgnore", "sourceId:ay type:i autoConnect:i popupCard:i",
                  "result:i"},
    ServiceMethod{"ConfigUdisks2Command", "desktop:i sourceId:ay command:i", "result:i"},
    // Settings and joysticks
    ServiceMethod{"getJoystickDevList", "zero:i", "count:i record:ay"},
    ServiceMethod{"getJoystickMappingList", "zero:i vid:q pid:q", "mapping:s"},
    ServiceMethod{"setJoystickMapping", "zero:i vid:q pid:q mapping:ay", "result:i"},
    ServiceMethod{"calibrationJoystick", "zero:i vid:q pid:q", "result:i"},
    ServiceMethod{"setLocalPolicy", "device:q policy:q name:ay detail:ay", "result:i"},
    ServiceMethod{"setDevicePropertyWithVidPid", "zero:i vid:q pid:q property:i value:i",
                  "result:i"},
    ServiceMethod{"getDevicePropertyWithVidPid", "zero:i vid:q pid:q pidAgain:i", "value:i"},
    ServiceMethod{"getLocalDevicePropertyWithVidPid", "zero:i vid:q pid:q pidAgain:i", "value:i"},
    ServiceMethod{"getTurboConfigWithVidPid", "zero:i vid:q pid:q", "config:s"},
    ServiceMethod{"setTurboConfigWithVidPid", "zero:i vid:q pid:q config:ay", "result:i"},
    ServiceMethod{"resetAllDeviceProperty", "zero:i", "result:i"},
    ServiceMethod{"CheckCameraAuthStat", "", "state:i"},
    ServiceMethod{"getPolicyListByVidPid", "zero:i", "count:i record:ay"},
    // Printers
    ServiceMethod{"getNetworkPrinterList", "", "count:i record:ay"},
    ServiceMethod{"addNetworkPrinter", "address:s name:s description:s", "result:i"},
    ServiceMethod{"deleteNetworkPrinter", "name:s", "result:i"},
    ServiceMethod{"renameNetworkPrinter", "name:ay newName:ay", "result:i"},
    ServiceMethod{"searchSharePrinter", "address:s",
                  "result:i count:i address:s name:s description:s"},
    ServiceMethod{"stopSearchSharePrinter", "", "result:i"},
    ServiceMethod{"addSharePrinter", "count:i *address:s name:s description:s", "result:i"},
    ServiceMethod{"deleteSharePrinter", "address:s name:s", "result:i"},
    ServiceMethod{"searchAllPrinter", "", "printers:s"},
    ServiceMethod{"getPrinterDriverlList", "query:s", "drivers:s"},
    ServiceMethod{"addPrinter", "name:s address:s driver:s", "result:i"},
    ServiceMethod{"autoAddPrinter", "name:s address:s driver:s", "result:i"},
    ServiceMethod{"deletePrinter", "name:s", "result:i"},
    ServiceMethod{"changePrinterDriver", "name:s driver:s", "result:i"},
    ServiceMethod{"printTestPage", "name:s", "result:i"},
    ServiceMethod{"getPrinterList", "desktop:i", "count:i record:ay"},
    ServiceMethod{"getPrinterStatus", "printer:q", "count:i record:ay"},
    ServiceMethod{"connectPrinter", "desktop:i printer:q", "result:i"},
    ServiceMethod{"disconnectPrinter", "desktop:i printer:q", "result:i"},
    ServiceMethod{"ConfigPrinterCommand", "desktop:i sourceId:ay command:i", "result:i"},
    // The service itself
    ServiceMethod{"resetService", "", "result:i"},
    ServiceMethod{"diagnose", "desktop:i", "result:i"},
    ServiceMethod{"diagnoseDevice", "desktop:i sourceId:x", "result:i"},
    ServiceMethod{"doPerixTest", "zero:i name:s", "result:i"},
    ServiceMethod{"doPerixCmd", "zero:i command:s", "result:i"},
    ServiceMethod{"getPerixCmdHelp", "zero:i", "help:s"},
};

/// The events and broadcasts of the service.
inline constexpr std::array kServiceEvents = {
    ServiceMethod{"perixevent", "desktop:i kind:i payload:ay"},
    ServiceMethod{"mountedEvent", "desktop:i kind:i payload:ay"},
};

/// Null for a name that the service does not have.
constexpr const ServiceMethod* ServiceMethodOf(std::string_view name) {
  for (const ServiceMethod& method : kServiceMethods) {
    if (name == method.name) return &method;
  }
  return nullptr;
}
/// As ServiceMethodOf, for an event.
constexpr const ServiceMethod* ServiceEventOf(std::string_view name) {
  for (const ServiceMethod& event : kServiceEvents) {
    if (name == event.name) return &event;
  }
  return nullptr;
}

/// Argument `index` of a call, from 0, out of ServiceMethod::in: "name:signature". Empty where the
/// method takes no argument.
constexpr std::string_view ArgumentOf(std::string_view arguments, std::size_t index) {
  std::size_t number = 0;
  std::size_t groupBegin = 0;
  std::string_view group;
  for (std::size_t at = 0; at < arguments.size();) {
    const std::size_t end = arguments.find(' ', at);
    std::string_view argument = arguments.substr(at, end - at);
    if (argument.front() == '*') {
      group = arguments.substr(at + 1);
      groupBegin = number;
    }
    if (argument.front() == '*' || argument.front() == '?') argument.remove_prefix(1);
    if (number++ == index) return argument;
    at = end == std::string_view::npos ? arguments.size() : end + 1;
  }
  if (group.empty()) return {};
  return ArgumentOf(group, (index - groupBegin) % (number - groupBegin));
}

}  // namespace zq
