#include "service/scenario/state.h"

#include "platform/text/hex.h"
#include "service/model/wire_records.h"
#include "service/scenario/words.h"

namespace zq::devservice {
namespace {

Json asJson(const Pipe& pipe) {
  return {{"param1", pipe.param1},
          {"param2", pipe.param2},
          {"label1", pipe.label1},
          {"label2", pipe.label2}};
}

Json asJson(const Desktop& desktop) {
  Json pipes = Json::array();
  for (const Pipe& pipe : desktop.pipes) pipes.push_back(asJson(pipe));
  Json ports = Json::object();
  for (const auto& [port, status] : desktop.ports) ports[std::to_string(port)] = status;
  Json quality = Json::object();
  for (const auto& [type, value] : desktop.quality) {
    quality[std::to_string(type)] = value ? Json(*value) : Json();
  }
  Json bandwidth;
  if (desktop.bandwidth) bandwidth = {desktop.bandwidth->value1, desktop.bandwidth->value2};
  return {{"id", desktop.id},
          {"name", desktop.name},
          {"connected", desktop.connected},
          {"started", desktop.started},
          {"focused", desktop.focused},
          {"windowId", desktop.windowId},
          {"systemType", desktop.systemType},
          {"shareMode", desktop.shareMode},
          {"connectParam", desktop.connectParam},
          {"pipes", pipes},
          {"ports", ports},
          {"bandwidth", bandwidth},
          {"quality", quality},
          {"usbRedirections", desktop.usbRedirections}};
}

Json asJson(const Device& device) {
  return {{"devNumber", device.number},
          {"sourceId", device.sourceId},
          {"type", wordFor(kDeviceTypeWords, device.type)},
          {"vid", device.id.vid},
          {"pid", device.id.pid},
          {"name", device.name},
          {"detail", device.detail},
          {"status", wordFor(kDeviceStatusWords, device.status)},
          {"desktop", device.desktop},
          {"policy", wordFor(kPolicyWords, device.policy)},
          {"mounted", device.mounted},
          {"network", device.network}};
}

Json asJson(const Printer& printer) {
  return {{"number", printer.number},
          {"origin", wordFor(kPrinterOriginWords, printer.origin)},
          {"name", printer.name},
          {"address", printer.address},
          {"driver", printer.driver},
          {"description", printer.description},
          {"status", wordFor(kPrinterStatusWords, printer.status)},
          {"desktop", printer.desktop},
          {"document", printer.document}};
}

Json asJson(const SharedHost& host) {
  Json printers = Json::array();
  for (const SharedPrinter& printer : host.printers) {
    printers.push_back({{"name", printer.name}, {"description", printer.description}});
  }
  return {{"address", host.address},
          {"searchMs", host.searchMs},
          {"reachable", host.reachable},
          {"printers", printers}};
}

template <typename Value>
Json byVidPid(const std::map<VidPid, Value>& values) {
  Json list = Json::array();
  for (const auto& [id, value] : values) {
    list.push_back({{"vid", id.vid}, {"pid", id.pid}, {"value", value}});
  }
  return list;
}

Json settingsAsJson(const World& world) {
  Json policies = Json::array();
  for (const auto& [id, policy] : world.devices.policies()) {
    policies.push_back({{"vid", id.vid},
                        {"pid", id.pid},
                        {"policy", wordFor(kPolicyWords, policy.policy)},
                        {"name", policy.name}});
  }
  Json autoConnect = Json::array();
  for (const DeviceType type : world.devices.autoConnected()) {
    autoConnect.push_back(wordFor(kDeviceTypeWords, type));
  }
  return {{"policies", policies},
          {"autoConnect", autoConnect},
          {"localProperties", byVidPid(world.settings.defaults)},
          {"properties", byVidPid(world.settings.properties)},
          {"turbo", byVidPid(world.settings.turbo)},
          {"joystickMappings", byVidPid(world.settings.joystickMappings)},
          {"cameraAuthorized", world.settings.cameraAuthorized}};
}

Json penAsJson(const World& world) {
  const auto pens = world.devices.ofType(DeviceType::Pen);
  if (pens.empty()) return nullptr;
  const auto announcement = penAnnouncement(*pens.front());
  return {{"devNumber", pens.front()->number}, {"announcement", inHex(announcement.view())}};
}

template <typename Things>
Json listOf(const Things& things) {
  Json list = Json::array();
  for (const auto& thing : things) list.push_back(asJson(thing));
  return list;
}

}  // namespace

Json printersAsJson(const World& world) {
  Json printers = Json::array();
  for (const auto& [number, printer] : world.printers.all()) printers.push_back(asJson(printer));
  return printers;
}

Json driversAsJson(const std::vector<Driver>& drivers) {
  Json list = Json::array();
  for (const Driver& driver : drivers) {
    list.push_back({{"name", driver.name}, {"maker", driver.maker}});
  }
  return list;
}

Json stateAsJson(const World& world) {
  Json devices = Json::array();
  for (const auto& [number, device] : world.devices.all()) devices.push_back(asJson(device));
  return {{"desktops", listOf(world.desktops.all())},
          {"devices", devices},
          {"printers", printersAsJson(world)},
          {"drivers", driversAsJson(world.printerBackend->drivers())},
          {"sharedHosts", listOf(world.search.hosts())},
          {"settings", settingsAsJson(world)},
          {"pen", penAsJson(world)},
          {"session",
           {{"tokenLength", world.tokenLength}, {"searchesRunning", world.search.running()}}}};
}

}  // namespace zq::devservice
