// The facts that the links of a chain have found so far, for the links behind them.
#pragma once

#include <map>
#include <string>

#include "perix/perix_proxy.h"
#include "perix/service_values.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/run.h"
#include "tools/perixctl/shell_command.h"
#include "zqbus/inspection.h"

namespace zq::ctl {

struct Case {
  Run& run;
  ZQBusInspection bus;                  ///< by the link "bus"
  std::map<std::string, int> desktops;  ///< by the link "answer"
  std::string desktop;                  ///< the DESKTOP argument
  uint32_t desktopId = 0;               ///< by the link "desktop"; 0 for an unknown desktop
  CommonDevice device{};                ///< by the link "device"
  DeviceDetails details{};              ///< by the link "device"
  std::string root;                     ///< of the machine that is looked at, "" or a directory

  /// Whether bus and service are on this machine, whose kernel knows their processes and devices.
  bool isLocal() const { return run.globals.host.empty(); }
  std::string deviceName() const { return "device " + std::to_string(device.devNumber); }
  /// A command of this tool about the desktop and the device, for a remedy.
  std::string command(const std::string& words) const {
    return shellCommand(words, {desktop, std::to_string(device.devNumber)});
  }
};

}  // namespace zq::ctl
