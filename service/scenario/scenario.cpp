#include "service/scenario/scenario.h"

#include <array>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <utility>

#include "service/scenario/toml_reader.h"

namespace zq::devservice {
namespace {

constexpr int64_t kUInt16Most = std::numeric_limits<uint16_t>::max();
constexpr int64_t kInt32Least = std::numeric_limits<int32_t>::min();
constexpr int64_t kInt32Most = std::numeric_limits<int32_t>::max();
constexpr int64_t kInt64Most = std::numeric_limits<int64_t>::max();
constexpr int64_t kLongestMs = 3'600'000;
constexpr std::size_t kCopySuffix = 7;  // " #65535"

/// A scenario in the making, with what must be unique so far.
struct Draft {
  Scenario scenario;
  std::set<int64_t> desktopIds;
  std::set<std::string> desktopNames;
  std::set<int64_t> deviceNumbers;
  std::set<uint64_t> sourceIds;
  std::set<int64_t> printerNumbers;
  std::set<std::pair<PrinterOrigin, std::string>> printerNames;
};

template <typename Value>
void unique(TableReader& reader, std::string_view key, std::set<Value>& taken, const Value& value) {
  if (!taken.insert(value).second) {
    reader.complain(key, "duplicate " + std::string(key) + ": another one has it already");
  }
}

void requireText(TableReader& reader, std::string_view key, std::string& out, std::size_t longest) {
  reader.require(key);
  if (reader.text(key, out, longest) && out.empty()) {
    reader.complain(key, std::string(key) + " is empty");
  }
}

VidPid readVidPid(TableReader& reader) {
  VidPid id;
  reader.number("vid", id.vid, 0, kUInt16Most);
  reader.number("pid", id.pid, 0, kUInt16Most);
  return id;
}

VidPid requireVidPid(TableReader& reader) {
  reader.require("vid");
  reader.require("pid");
  return readVidPid(reader);
}

/// The desktop that the key "desktop" names, null when it names none that exists and is connected.
const Desktop* readDesktopName(TableReader& reader, const Scenario& scenario) {
  std::string name;
  if (!reader.text("desktop", name)) return nullptr;
  for (const Desktop& desktop : scenario.desktops) {
    if (desktop.name != name) continue;
    if (desktop.connected) return &desktop;
    reader.complain("desktop", "the desktop " + name + " is not connected at the start");
    return nullptr;
  }
  reader.complain("desktop", "there is no desktop " + name);
  return nullptr;
}

void readDesktop(TableReader& reader, Draft& draft) {
  Desktop desktop;
  reader.require("id");
  if (reader.number("id", desktop.id, 1, kInt32Most)) {
    unique(reader, "id", draft.desktopIds, int64_t{desktop.id});
  }
  requireText(reader, "name", desktop.name, kDesktopNameLimit);
  unique(reader, "name", draft.desktopNames, desktop.name);
  reader.flag("connected", desktop.connected);
  reader.number("systemType", desktop.systemType, kInt32Least, kInt32Most);
  reader.number("shareMode", desktop.shareMode, kInt32Least, kInt32Most);
  draft.scenario.desktops.push_back(std::move(desktop));
}

/// The keys that plugged devices have, too.
Device readDeviceItself(TableReader& reader) {
  Device device;
  requireText(reader, "name", device.name, kDeviceNameLimit);
  reader.text("detail", device.detail, kDeviceDetailLimit);
  reader.number("devNumber", device.number, 1, kUInt16Most);
  reader.number64("sourceId", device.sourceId);
  reader.word("type", device.type, kDeviceTypeWords);
  device.id = readVidPid(reader);
  reader.word("policy", device.policy, kPolicyWords);
  if (reader.flag("mounted", device.mounted) && device.mounted && device.type != DeviceType::Disk) {
    reader.complain("mounted", "only disks are mounted");
  }
  return device;
}

void noteUniqueDevice(TableReader& reader, Draft& draft, const Device& device) {
  if (device.number != 0) {
    unique(reader, "devNumber", draft.deviceNumbers, int64_t{device.number});
  }
  if (device.sourceId != 0) unique(reader, "sourceId", draft.sourceIds, device.sourceId);
}

/// Appends the device, or `copies` of it with numbers that go on.
void addCopies(TableReader& reader, Draft& draft, Device device, int32_t copies) {
  const std::string name = device.name;
  if (draft.scenario.devices.size() + static_cast<std::size_t>(copies) > kUInt16Most) {
    return reader.complain("copies", "there are more devices than numbers");
  }
  for (int32_t copy = 0; copy < copies; ++copy) {
    if (copies > 1) device.name = name + " #" + std::to_string(copy + 1);
    noteUniqueDevice(reader, draft, device);
    draft.scenario.devices.push_back(device);
    if (device.number != 0) ++device.number;
    if (device.sourceId != 0) ++device.sourceId;
  }
}

void readDevice(TableReader& reader, Draft& draft) {
  Device device = readDeviceItself(reader);
  bool waiting = false;
  int32_t copies = 1;
  if (reader.flag("waiting", waiting) && waiting) device.status = DeviceStatus::Waiting;
  const bool many = reader.number("copies", copies, 1, kUInt16Most);
  if (many && device.name.size() + kCopySuffix > kDeviceNameLimit) {
    reader.complain("name", "the name of copies has at most 120 bytes");
  }
  if (const Desktop* desktop = readDesktopName(reader, draft.scenario)) {
    device.desktop = desktop->id;
    device.status = DeviceStatus::Connected;
    if (waiting) reader.complain("waiting", "a device that waits is in no desktop");
  }
  if (device.number + copies > kUInt16Most + 1) {
    return reader.complain("copies", "there are not as many numbers from devNumber on");
  }
  addCopies(reader, draft, std::move(device), copies);
}

void readAnyPrinter(TableReader& reader, Draft& draft, Printer printer) {
  requireText(reader, "name", printer.name, kPrinterNameLimit);
  unique(reader, "name", draft.printerNames, std::pair(printer.origin, printer.name));
  reader.text("address", printer.address, kDeviceDetailLimit);
  reader.text("description", printer.description);
  if (reader.number("number", printer.number, 1, kUInt16Most)) {
    unique(reader, "number", draft.printerNumbers, int64_t{printer.number});
  }
  if (const Desktop* desktop = readDesktopName(reader, draft.scenario)) {
    printer.desktop = desktop->id;
    printer.status = PrinterStatus::Connected;
  }
  draft.scenario.printers.push_back(std::move(printer));
}

void readPrinter(TableReader& reader, Draft& draft) {
  Printer printer;
  if (reader.text("driver", printer.driver)) {
    bool known = false;
    for (const Driver& driver : draft.scenario.drivers) known |= driver.name == printer.driver;
    if (!known) reader.complain("driver", "there is no driver " + printer.driver);
  }
  readAnyPrinter(reader, draft, std::move(printer));
}

void readNetworkPrinter(TableReader& reader, Draft& draft) {
  Printer printer;
  printer.origin = PrinterOrigin::Network;
  reader.require("address");
  readAnyPrinter(reader, draft, std::move(printer));
}

void readDriver(TableReader& reader, Draft& draft) {
  Driver driver;
  requireText(reader, "name", driver.name, kDeviceDetailLimit);
  reader.text("maker", driver.maker);
  draft.scenario.drivers.push_back(std::move(driver));
}

void readHost(TableReader& reader, Draft& draft) {
  SharedHost host;
  requireText(reader, "address", host.address, kSharedTextLimit);
  reader.number("searchMs", host.searchMs, 0, kLongestMs);
  reader.flag("reachable", host.reachable);
  // A shared printer's texts may be too long for a client's record: clients cut them.
  for (const toml::table* names : reader.tables("printers")) {
    TableReader printer(*names, reader.mistakes());
    SharedPrinter shared;
    requireText(printer, "name", shared.name, kDeviceDetailLimit);
    printer.text("description", shared.description);
    printer.finish();
    host.printers.push_back(std::move(shared));
  }
  draft.scenario.hosts.push_back(std::move(host));
}

void readPolicy(TableReader& reader, Draft& draft) {
  VidPidPolicy policy;
  const VidPid id = requireVidPid(reader);
  reader.require("policy");
  reader.word("policy", policy.policy, kPolicyWords);
  reader.text("name", policy.name, kDeviceNameLimit);
  draft.scenario.policies[id] = std::move(policy);
}

void readProperty(TableReader& reader, Draft& draft) {
  const VidPid id = requireVidPid(reader);
  reader.require("value");
  reader.number("value", draft.scenario.properties[id], kInt32Least, kInt32Most);
}

void readTurbo(TableReader& reader, Draft& draft) {
  requireText(reader, "config", draft.scenario.turbo[requireVidPid(reader)], kInt32Most);
}

void readMapping(TableReader& reader, Draft& draft) {
  requireText(reader, "mapping", draft.scenario.joystickMappings[requireVidPid(reader)],
              kInt32Most);
}

void readCommand(TableReader& reader, Draft& draft) {
  Command command;
  requireText(reader, "name", command.name, kDeviceDetailLimit);
  reader.text("help", command.help);
  reader.text("answer", command.answer, kCommandAnswerLimit);
  reader.number("result", command.result, kInt32Least, kInt32Most);
  draft.scenario.commands.push_back(std::move(command));
}

void readTest(TableReader& reader, Draft& draft) {
  SelfTest test;
  requireText(reader, "name", test.name, kDeviceDetailLimit);
  reader.number("result", test.result, kInt32Least, kInt32Most);
  draft.scenario.tests.push_back(std::move(test));
}

void readService(TableReader& reader, Draft& draft) {
  reader.flag("cameraAuthorized", draft.scenario.cameraAuthorized);
  reader.words("autoConnect", draft.scenario.autoConnect, kDeviceTypeWords);
}

void readTiming(TableReader& reader, Draft& draft) {
  Timing& timing = draft.scenario.timing;
  for (const auto& [key, value] : {
           std::pair{"configurationMs", &timing.configuration},
           std::pair{"diagnosisStepMs", &timing.diagnosisStep},
           std::pair{"calibrationMs", &timing.calibration},
           std::pair{"printJobMs", &timing.printJob},
           std::pair{"printerSetupMs", &timing.printerSetup},
           std::pair{"summaryMs", &timing.summary},
           std::pair{"unknownHostMs", &timing.unknownHost},
       }) {
    reader.number(key, *value, 0, kLongestMs);
  }
}

/// The sections of a scenario, what others refer to first.
struct Section {
  const char* key;
  bool list;
  void (*read)(TableReader&, Draft&);
};
constexpr std::array kSections = {
    Section{"service", false, readService},
    Section{"timing", false, readTiming},
    Section{"desktop", true, readDesktop},
    Section{"device", true, readDevice},
    Section{"driver", true, readDriver},
    Section{"printer", true, readPrinter},
    Section{"networkPrinter", true, readNetworkPrinter},
    Section{"host", true, readHost},
    Section{"policy", true, readPolicy},
    Section{"property", true, readProperty},
    Section{"turbo", true, readTurbo},
    Section{"joystickMapping", true, readMapping},
    Section{"command", true, readCommand},
    Section{"test", true, readTest},
};

void readSection(const Section& section, TableReader& document, Draft& draft) {
  std::vector<const toml::table*> tables;
  if (section.list) {
    tables = document.tables(section.key);
  } else if (const toml::table* table = document.table(section.key)) {
    tables = {table};
  }
  for (const toml::table* table : tables) {
    TableReader reader(*table, document.mistakes());
    section.read(reader, draft);
    reader.finish();
  }
}

/// The document's root table; empty, the mistake noted, when it is no TOML.
std::optional<toml::table> parseDocument(const std::string& text, Mistakes& mistakes) {
  try {
    return toml::parse(text);
  } catch (const toml::parse_error& error) {
    mistakes.note(error.source().begin, error.description());
    return std::nullopt;
  }
}

}  // namespace

std::optional<Scenario> parseScenario(const std::string& text, const std::string& source,
                                      std::vector<std::string>& mistakes) {
  Mistakes found(source);
  Draft draft;
  if (const auto root = parseDocument(text, found)) {
    TableReader document(*root, found);
    for (const Section& section : kSections) readSection(section, document, draft);
    document.finish();
  }
  if (found.lines().empty()) return std::move(draft.scenario);
  mistakes = found.lines();
  return std::nullopt;
}

std::optional<Scenario> loadScenario(const std::string& path, std::vector<std::string>& mistakes) {
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file.good() && !file.eof()) {
    mistakes = {path + ":1:1: cannot be read"};
    return std::nullopt;
  }
  return parseScenario(text, path, mistakes);
}

std::optional<Device> parseDevice(const std::string& text, const std::string& source,
                                  std::vector<std::string>& mistakes) {
  Mistakes found(source);
  std::optional<Device> device;
  if (const auto root = parseDocument(text, found)) {
    TableReader reader(*root, found);
    device = readDeviceItself(reader);
    reader.finish();
  }
  if (found.lines().empty()) return device;
  mistakes = found.lines();
  return std::nullopt;
}

}  // namespace zq::devservice
