#include "tools/perixctl/seen_scenario.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>

#include "platform/text/escape.h"
#include "platform/text/utf8.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"

namespace zq::ctl {
namespace {

using devservice::Device;
using devservice::Printer;
using devservice::PrinterOrigin;
using devservice::Scenario;
using Id = devservice::VidPid;

constexpr std::size_t kDriverNameLimit = devservice::kDeviceDetailLimit;
constexpr std::size_t kAddressLimit = devservice::kDeviceDetailLimit;

std::string textAt(const Json& object, const char* key) {
  const Json value = object.value(key, Json());
  return value.is_string() ? value.get<std::string>() : "";
}

class Observer {
 public:
  explicit Observer(PerixProxy& proxy) : proxy_(proxy) {}

  SeenScenario look();

 private:
  bool answered(const std::string& question);
  std::string fitting(const std::string& text, const std::string& of,
                      std::size_t most = std::string::npos);
  bool isFirst(const std::string& title, const char* key, const std::string& value);
  bool isFirst(const Device& device, const std::string& title);
  bool isFirst(const Printer& printer, const std::string& title);
  template <typename Value, typename Number>
  void setWord(Value& value, Number number, const std::string& of);
  void placeIn(uint32_t desktop, uint32_t& place, const std::string& of);
  Json rows(const std::string& text, const char* list);

  void lookAtDesktops();
  void lookAtDesktop(const std::string& name, int id);
  void lookAtDevices();
  void lookAtDevice(const CommonDevice& device);
  void lookAtPrinters();
  Printer seenPrinter(const PrinterDevice& printer, const Json& summary,
                      const std::map<uint16_t, std::string>& network);
  void lookAtDrivers();
  void lookAtSettings();
  void lookAtPolicies();
  void lookAtJoysticks();

  PerixProxy& proxy_;
  Scenario scenario_;
  std::vector<std::string> gaps_;
  std::set<std::pair<std::string, std::string>> taken_;  ///< values that one record alone may have
};

SeenScenario Observer::look() {
  lookAtDesktops();
  lookAtDevices();
  lookAtPrinters();
  lookAtDrivers();
  lookAtSettings();
  lookAtPolicies();
  lookAtJoysticks();
  return {std::move(scenario_), std::move(gaps_)};
}

/// Whether the service answered the last question. A refusal leaves a gap.
bool Observer::answered(const std::string& question) {
  const std::string whyNot = refusal();
  if (!whyNot.empty()) gaps_.push_back(question + ": " + whyNot);
  return whyNot.empty();
}

/// The text as a scenario can hold it: UTF-8, and not longer than `most` bytes. A text that changes
/// so is a gap.
std::string Observer::fitting(const std::string& text, const std::string& of, std::size_t most) {
  const std::string clean = isUtf8(text) ? text : escaped(text);
  std::string fits(cutText(clean, most));
  if (fits != text) gaps_.push_back(of + " is changed to '" + fits + "'");
  return fits;
}

/// False when a record before has the value already, which is a gap.
bool Observer::isFirst(const std::string& title, const char* key, const std::string& value) {
  if (taken_.emplace(key, value).second) return true;
  gaps_.push_back(title + " is left out: another record has its " + key + ", " + value);
  return false;
}

/// The service that loads the scenario chooses numbers and source ids that are 0.
bool Observer::isFirst(const Device& device, const std::string& title) {
  return (device.number == 0 || isFirst(title, "device number", std::to_string(device.number))) &&
         (device.sourceId == 0 || isFirst(title, "source id", std::to_string(device.sourceId)));
}

bool Observer::isFirst(const Printer& printer, const std::string& title) {
  if (printer.number != 0 && !isFirst(title, "printer number", std::to_string(printer.number))) {
    return false;
  }
  switch (printer.origin) {
    case PrinterOrigin::Local:
      return isFirst(title, "printer name", printer.name);
    case PrinterOrigin::Network:
      return isFirst(title, "network printer name", printer.name);
    case PrinterOrigin::Shared:
      break;
  }
  return true;
}

/// Sets the value that a number stands for; a number that stands for none is a gap.
template <typename Value, typename Number>
void Observer::setWord(Value& value, Number number, const std::string& of) {
  if (TextOf(static_cast<Value>(number)) != nullptr) {
    value = static_cast<Value>(number);
  } else {
    gaps_.push_back(of + " has the unknown number " + std::to_string(number));
  }
}

/// A device or a printer is in a desktop, which so has a session.
void Observer::placeIn(uint32_t desktop, uint32_t& place, const std::string& of) {
  if (desktop == 0) return;
  for (devservice::Desktop& known : scenario_.desktops) {
    if (known.id != desktop) continue;
    known.connected = true;
    place = desktop;
    return;
  }
  gaps_.push_back(of + " is in the unlisted desktop " + std::to_string(desktop));
}

/// The objects of a list in one of the service's own documents.
Json Observer::rows(const std::string& text, const char* list) {
  const Json document = parsedText(text);
  Json found = document.is_object() ? document.value(list, Json()) : Json();
  if (!found.is_array()) {
    gaps_.push_back(std::string(list) + ": the service's document has an unknown form");
    return Json::array();
  }
  std::erase_if(found.get_ref<Json::array_t&>(), [](const Json& row) { return !row.is_object(); });
  return found;
}

void Observer::lookAtDesktops() {
  const std::map<std::string, int> desktops = proxy_.GetVmList();
  requireAnswer();
  for (const auto& [name, id] : desktops) lookAtDesktop(name, id);
  std::sort(scenario_.desktops.begin(), scenario_.desktops.end(),
            [](const auto& a, const auto& b) { return a.id < b.id; });
}

void Observer::lookAtDesktop(const std::string& name, int id) {
  const std::string title = "desktop " + std::to_string(id);
  if (id < 1) return gaps_.push_back(title + " is left out: its number is less than 1");
  devservice::Desktop desktop;
  desktop.id = static_cast<uint32_t>(id);
  // A scenario has no desktop, device or printer without a name.
  desktop.name =
      name.empty() ? title : fitting(name, title + ": its name", devservice::kDesktopNameLimit);
  if (isFirst(title, "desktop number", std::to_string(id)) &&
      isFirst(title, "desktop name", desktop.name)) {
    scenario_.desktops.push_back(std::move(desktop));
  }
}

void Observer::lookAtDevices() {
  const std::list<CommonDevice*> devices = proxy_.GetLocalDeviceList();
  requireAnswer();
  for (const CommonDevice* device : devices) lookAtDevice(recordIn<CommonDevice>(device));
  proxy_.FreeDeviceList(devices);
}

void Observer::lookAtDevice(const CommonDevice& record) {
  const DeviceDetails details = DetailsOf(record);
  const std::string title = "device " + std::to_string(record.devNumber);
  const std::string name = textIn(record.name);
  Device device;
  device.number = record.devNumber;
  device.sourceId = details.sourceId;
  device.id = {details.vid, details.pid};
  device.name =
      name.empty() ? title : fitting(name, title + ": its name", devservice::kDeviceNameLimit);
  device.detail =
      fitting(textIn(record.detail), title + ": its detail", devservice::kDeviceDetailLimit);
  setWord(device.type, details.type, title + ": its type");
  setWord(device.status, record.status, title + ": its status");
  setWord(device.policy, record.localPolicy, title + ": its policy");
  if (!isFirst(device, title)) return;
  const bool isUndecided =
      device.status == DeviceStatus::Waiting || device.status == DeviceStatus::Ignored;
  if (record.vmId == 0 || !isUndecided) {
    placeIn(record.vmId, device.desktop, title);
  } else {
    gaps_.push_back(title + " is " + TextOf(device.status) + ", and in desktop " +
                    std::to_string(record.vmId));
  }
  scenario_.devices.push_back(std::move(device));
}

void Observer::lookAtPrinters() {
  const std::list<PrinterDevice*> printers = proxy_.GetPrinterList("");
  requireAnswer();
  std::map<uint16_t, std::string> network;  // number to address
  const std::list<CommonDevice*> records = proxy_.GetNetworkPrinterList();
  answered("network printers");
  for (const CommonDevice* each : records) {
    const auto record = recordIn<CommonDevice>(each);
    network[record.devNumber] = textIn(record.detail);
  }
  proxy_.FreeDeviceList(records);
  const std::string text = proxy_.SearchAllPrinter();
  const Json summaries =
      answered("summary of the printers") ? rows(text, "printers") : Json::array();
  for (PrinterDevice* each : printers) {
    const auto printer = recordIn<PrinterDevice>(each);
    std::free(each);
    Json summary = Json::object();
    for (const Json& row : summaries) {
      if (row.value("number", Json()) == printer.devNum) summary = row;
    }
    Printer seen = seenPrinter(printer, summary, network);
    if (isFirst(seen, "printer " + std::to_string(seen.number))) {
      scenario_.printers.push_back(std::move(seen));
    }
  }
}

Printer Observer::seenPrinter(const PrinterDevice& record, const Json& summary,
                              const std::map<uint16_t, std::string>& network) {
  const std::string title = "printer " + std::to_string(record.devNum);
  Printer printer;
  printer.number = record.devNum;
  const std::string name = textIn(record.name);
  printer.name =
      name.empty() ? title : fitting(name, title + ": its name", devservice::kPrinterNameLimit);
  printer.driver = fitting(textAt(summary, "driver"), title + ": its driver", kDriverNameLimit);
  printer.description = textAt(summary, "description");
  const auto listed = network.find(record.devNum);
  const std::string address = listed == network.end() ? textAt(summary, "address") : listed->second;
  printer.address = fitting(address, title + ": its address", kAddressLimit);
  if (listed != network.end()) {
    printer.origin = PrinterOrigin::Network;
    if (address.empty()) {
      printer.address = "unknown";
      gaps_.push_back(title + " has no address, which is written as 'unknown'");
    }
  } else if (textAt(summary, "origin") == TextOf(PrinterOrigin::Shared)) {
    printer.origin = PrinterOrigin::Shared;
  }
  setWord(printer.status, record.status, title + ": its status");
  placeIn(static_cast<uint32_t>(record.vmId), printer.desktop, title);
  return printer;
}

void Observer::lookAtDrivers() {
  const auto add = [this](const std::string& name, const std::string& maker) {
    if (taken_.emplace("driver", name).second) scenario_.drivers.push_back({name, maker});
  };
  const std::string text = proxy_.GetPrinterDriverlList("");
  if (answered("printer drivers")) {
    for (const Json& row : rows(text, "drivers")) {
      const std::string name = textAt(row, "name");
      if (name.empty()) {
        gaps_.emplace_back("a driver without a name is left out");
      } else {
        add(fitting(name, "the name of a driver", kDriverNameLimit), textAt(row, "maker"));
      }
    }
  }
  // A scenario lists each driver that one of its printers has.
  for (const Printer& printer : scenario_.printers) {
    const bool isLocal = printer.origin == PrinterOrigin::Local;
    if (isLocal && !printer.driver.empty()) add(printer.driver, "");
  }
}

/// Per type of device, and per vendor and product of the devices that are listed.
void Observer::lookAtSettings() {
  for (const Word& type : kDeviceTypes) {
    const int on = proxy_.GetAutoConnect(static_cast<uint16_t>(type.number));
    if (!answered(std::string("automatic connection of ") + type.word) || on == 0) continue;
    scenario_.autoConnect.push_back(static_cast<DeviceType>(type.number));
  }
  std::set<Id> ids;
  for (const Device& device : scenario_.devices) ids.insert(device.id);
  for (const Id& id : ids) {
    const int local = proxy_.GetLocalDevicePropertyWithVidPid(id.vid, id.pid, 0);
    if (answered("a local property") && local != 0) scenario_.properties[id] = local;
    const int now = proxy_.GetDevicePropertyWithVidPid(id.vid, id.pid, 0);
    if (answered("a property") && now != local) scenario_.setProperties[id] = now;
    const std::string turbo = proxy_.GetTurboConfigWithVidPid(id.vid, id.pid);
    if (answered("a turbo configuration") && !turbo.empty())
      scenario_.turbo[id] = fitting(turbo, "a turbo configuration");
  }
  const int camera = proxy_.CheckCameraAuthStat();
  if (answered("the camera authorisation")) scenario_.cameraAuthorized = camera != 0;
}

void Observer::lookAtPolicies() {
  const std::list<CommonVidPidPolicy*> policies = proxy_.GetPolicyListByVidPid();
  answered("policies");
  for (const CommonVidPidPolicy* each : policies) {
    const auto record = recordIn<CommonVidPidPolicy>(each);
    devservice::VidPidPolicy& policy = scenario_.policies[{record.vid, record.pid}];
    policy.name =
        fitting(textIn(record.name), "the name of a policy", devservice::kDeviceNameLimit);
    setWord(policy.policy, record.policy, "a policy");
  }
  proxy_.FreePolicyList(policies);
}

void Observer::lookAtJoysticks() {
  const std::list<CommonDevice*> joysticks = proxy_.GetJoystickDevList();
  answered("joysticks");
  for (const CommonDevice* each : joysticks) {
    const DeviceDetails details = DetailsOf(recordIn<CommonDevice>(each));
    const std::string mapping = proxy_.GetJoystickMappingList(details.vid, details.pid);
    if (!answered("a button mapping") || mapping.empty()) continue;
    scenario_.joystickMappings[{details.vid, details.pid}] = fitting(mapping, "a button mapping");
  }
  proxy_.FreeDeviceList(joysticks);
}

}  // namespace

SeenScenario seenScenario(PerixProxy& proxy) {
  return Observer(proxy).look();
}

const std::vector<std::string>& unseenParts() {
  static const std::vector<std::string> parts = {
      "sessions of desktops in which there is neither a device nor a printer; the kind, focus,",
      "  pipes, ports and reports of all sessions",
      "whether a disk is mounted, and whether a device is reached over the network",
      "types of devices that are not announced when they are plugged",
      "settings of vendors and products of which no device is listed, policies aside",
      "hosts that share printers, and the document that a printer prints",
      "commands, self-tests, and the time that the service takes for its work",
  };
  return parts;
}

}  // namespace zq::ctl
