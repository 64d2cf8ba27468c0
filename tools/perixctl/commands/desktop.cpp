// desktop: sessions and the focus.
#include <cstdlib>
#include <map>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"

namespace zq::ctl {
namespace {

// The names of the records of a list that are connected, by the integer ids of their desktops.
using NamesByDesktop = std::map<uint32_t, Json>;

NamesByDesktop connectedDevices(PerixProxy& proxy) {
  NamesByDesktop names;
  const auto devices = proxy.GetLocalDeviceList();
  for (const CommonDevice* each : devices) {
    const auto device = recordIn<CommonDevice>(each);
    if (device.status == kDeviceConnected) names[device.vmId].push_back(textIn(device.name));
  }
  proxy.FreeDeviceList(devices);
  return names;
}

NamesByDesktop connectedPrinters(PerixProxy& proxy) {
  NamesByDesktop names;
  for (PrinterDevice* each : proxy.GetPrinterList("")) {
    const auto printer = recordIn<PrinterDevice>(each);
    if (printer.vmId != 0) {
      names[static_cast<uint32_t>(printer.vmId)].push_back(textIn(printer.name));
    }
    std::free(each);
  }
  return names;
}

Json namesIn(const NamesByDesktop& names, int desktop) {
  const auto found = names.find(static_cast<uint32_t>(desktop));
  return found == names.end() ? Json::array() : found->second;
}

// The service tells of a session only through the devices and printers that are in it.
Outcome listDesktops(Run& run) {
  PerixProxy& proxy = run.proxy();
  const std::map<std::string, int> desktops = proxy.GetVmList();
  requireAnswer();
  const NamesByDesktop devices = connectedDevices(proxy);
  const NamesByDesktop printers = connectedPrinters(proxy);
  Json rows = Json::array();
  for (const auto& [name, id] : desktops) {
    rows.push_back({{"desktop", name},
                    {"id", id},
                    {"devices", namesIn(devices, id)},
                    {"printers", namesIn(printers, id)}});
  }
  return tableOf(
      std::move(rows),
      {{"desktop", "DESKTOP"}, {"id", "ID"}, {"devices", "DEVICES"}, {"printers", "PRINTERS"}});
}

int connectDesktop(Run& run) {
  VmInfo info{};
  info.vmId = run.desktop();
  info.systemType = run.arguments.number<int32_t>("--system-type");
  info.shareMode = run.arguments.number<int32_t>("--share-mode");
  info.connectParam = run.arguments.number<uint32_t>("--connect-param");
  return run.proxy().ConnectVm(info);
}

int focusDesktop(Run& run) {
  return run.proxy().OnFocusChanged(run.desktop(), run.arguments.number<uint64_t>("WINDOW"),
                                    run.arguments.isOn("GAINED") ? 1 : 0);
}

Argument sessionValue(const char* name, ArgumentKind kind) {
  return {name, kind, "Passed to the service as it is; 0 by default", Presence::Optional};
}

}  // namespace

std::vector<Command> desktopCommands() {
  return {
      {"desktop list", {}, "List the desktops that the service knows", listDesktops},
      {"desktop connect",
       {desktopArgument(), sessionValue("--system-type", ArgumentKind::Int32),
        sessionValue("--share-mode", ArgumentKind::Int32),
        sessionValue("--connect-param", ArgumentKind::UInt32)},
       "Announce a session of a desktop",
       status(connectDesktop)},
      {"desktop disconnect",
       {desktopArgument()},
       "Announce the end of a session",
       report([](Run& run) { run.proxy().DisconnectVm(run.desktop()); })},
      {"desktop start", {desktopArgument()}, "Start the desktop's manager", report([](Run& run) {
         run.proxy().StartVm(run.desktop());
       })},
      {"desktop focus",
       {desktopArgument(),
        {"WINDOW", ArgumentKind::UInt64, "The window's id"},
        {"GAINED", ArgumentKind::Switch,
         "on when the window gained the focus, off when it lost it"}},
       "Tell that a window of the desktop gained or lost the focus",
       status(focusDesktop)},
  };
}

}  // namespace zq::ctl
