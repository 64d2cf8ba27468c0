#include "service/scenario/scenario.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <fstream>
#include <set>
#include <utility>

#include "service/scenario/toml_reader.h"
#include "service/scenario/toml_writer.h"

namespace zq::devservice {
namespace {

constexpr int64_t kLastNumber = std::numeric_limits<uint16_t>::max();
constexpr std::size_t kCopySuffix = 7;  // " #65535"

/// The desktop that the key "desktop" names; null unless that desktop exists and is connected.
const Desktop* readDesktopName(TableReader& reader, const Scenario& scenario) {
  std::string name;
  if (!reader.field("desktop", name)) return nullptr;
  for (const Desktop& desktop : scenario.desktops) {
    if (desktop.name != name) continue;
    if (desktop.connected) return &desktop;
    reader.complain("desktop", "the desktop " + name + " is not connected at the start");
    return nullptr;
  }
  reader.complain("desktop", "there is no desktop " + name);
  return nullptr;
}

/// The keys of devices in scenarios and of devices that are plugged.
void readDeviceItself(TableReader& reader, Device& device) {
  fields(reader, device);
  if (device.mounted && device.type != DeviceType::Disk) {
    reader.complain("mounted", "only disks are mounted");
  }
}

/// Appends the device, or `copies` of it with consecutive numbers.
void addCopies(TableReader& reader, Scenario& scenario, Device device, int32_t copies) {
  const std::string name = device.name;
  if (device.number + copies > kLastNumber + 1) {
    return reader.complain("copies", "there are not as many numbers from devNumber on");
  }
  if (scenario.devices.size() + static_cast<std::size_t>(copies) > kLastNumber) {
    return reader.complain("copies", "there are more devices than numbers");
  }
  for (int32_t copy = 0; copy < copies; ++copy) {
    if (copies > 1) device.name = name + " #" + std::to_string(copy + 1);
    scenario.devices.push_back(device);
    if (device.number != 0) {
      reader.requireUnique("devNumber", "device.devNumber", std::to_string(device.number++));
    }
    if (device.sourceId != 0) {
      reader.requireUnique("sourceId", "device.sourceId", std::to_string(device.sourceId++));
    }
  }
}

void readDevice(TableReader& reader, Scenario& scenario) {
  Device device;
  readDeviceItself(reader, device);
  bool waiting = false;
  bool ignored = false;
  int32_t copies = 1;
  reader.field("waiting", waiting);
  reader.field("ignored", ignored);
  reader.field("copies", copies, {.least = 1, .most = kLastNumber});
  if (waiting) device.status = DeviceStatus::Waiting;
  if (ignored) device.status = DeviceStatus::Ignored;
  if (waiting && ignored) reader.complain("ignored", "a device that waits is not ignored");
  if (copies > 1 && device.name.size() + kCopySuffix > kDeviceNameLimit) {
    reader.complain("name", "the name of copies has at most 120 bytes");
  }
  if (const Desktop* desktop = readDesktopName(reader, scenario)) {
    device.desktop = desktop->id;
    device.status = DeviceStatus::Connected;
    if (waiting) reader.complain("waiting", "a device that waits is in no desktop");
    if (ignored) reader.complain("ignored", "a device that is ignored is in no desktop");
  }
  addCopies(reader, scenario, std::move(device), copies);
}

/// Devices without a number get the numbers behind the last.
void checkDerivedIds(TableReader& root, const Scenario& scenario) {
  std::set<uint64_t> given;
  uint16_t last = 0;
  for (const Device& device : scenario.devices) {
    given.insert(device.sourceId);
    last = std::max(last, device.number);
  }
  for (const Device& device : scenario.devices) {
    const uint64_t derived = derivedSourceId(device.number != 0 ? device.number : ++last);
    if (device.sourceId != 0 || given.count(derived) == 0) continue;
    root.complain("device", "duplicate sourceId: the device " + device.name + " gets " +
                                std::to_string(derived) + ", which another table has already");
  }
}

void devices(TableReader& root, Scenario& scenario) {
  root.list("device", [&](TableReader& table) { readDevice(table, scenario); });
  checkDerivedIds(root, scenario);
}

void writeDesktopName(TableWriter& writer, const Scenario& scenario, uint32_t id) {
  for (const Desktop& desktop : scenario.desktops) {
    if (desktop.id == id) writer.field("desktop", desktop.name);
  }
}

void devices(TomlWriter& root, const Scenario& scenario) {
  root.list("device", scenario.devices, [&](TableWriter& table, const Device& device) {
    fields(table, device);
    table.field("waiting", device.status == DeviceStatus::Waiting);
    table.field("ignored", device.status == DeviceStatus::Ignored);
    writeDesktopName(table, scenario, device.desktop);
  });
}

void readPrinter(TableReader& reader, Scenario& scenario, PrinterOrigin origin) {
  Printer printer;
  printer.origin = origin;
  fields(reader, printer);
  const bool known =
      std::any_of(scenario.drivers.begin(), scenario.drivers.end(),
                  [&](const Driver& driver) { return driver.name == printer.driver; });
  if (!printer.driver.empty() && !known) {
    reader.complain("driver", "there is no driver " + printer.driver);
  }
  if (const Desktop* desktop = readDesktopName(reader, scenario)) {
    printer.desktop = desktop->id;
    printer.status = PrinterStatus::Connected;
  }
  bool paused = false;
  if (reader.field("paused", paused) && paused) printer.status = PrinterStatus::Paused;
  scenario.printers.push_back(std::move(printer));
}

void printers(TableReader& root, const char* key, Scenario& scenario, PrinterOrigin origin) {
  root.list(key, [&](TableReader& table) { readPrinter(table, scenario, origin); });
}

void printers(TomlWriter& root, const char* key, const Scenario& scenario, PrinterOrigin origin) {
  std::vector<Printer> written;
  for (const Printer& printer : scenario.printers) {
    if (printer.origin == origin) written.push_back(printer);
  }
  const auto write = [&](TableWriter& table, const Printer& printer) {
    fields(table, printer);
    table.field("paused", printer.status == PrinterStatus::Paused);
    writeDesktopName(table, scenario, printer.desktop);
  };
  root.list(key, written, write, {.origin = origin});
}

/// Whether clients can search the address: "a.b.c.d" or "a.b.c.d:port".
bool isHostAddress(const std::string& address) {
  const std::size_t colon = address.find(':');
  in_addr host{};
  if (inet_pton(AF_INET, address.substr(0, colon).c_str(), &host) != 1) return false;
  if (colon == std::string::npos) return true;
  uint16_t port = 0;
  const char* end = address.data() + address.size();
  const auto [rest, error] = std::from_chars(address.data() + colon + 1, end, port);
  return error == std::errc() && rest == end;
}

void checkAddress(TableReader& reader, const SharedHost& host) {
  if (!host.address.empty() && !isHostAddress(host.address)) {
    reader.complain("address", "address is not of the form a.b.c.d or a.b.c.d:port");
  }
}
void checkAddress(TableWriter& /*writer*/, const SharedHost& /*host*/) {}

/// A section stands behind the sections that it refers to.
void sections(auto& form, In<decltype(form), Scenario>& s) {
  const auto allFields = [](auto& table, auto& record) { fields(table, record); };
  form.table("service", [&](auto& table) {
    table.field("cameraAuthorized", s.cameraAuthorized);
    table.field("autoConnect", s.autoConnect);
  });
  form.table("timing", s.timing, allFields);
  form.list("desktop", s.desktops, allFields);
  devices(form, s);
  form.list("driver", s.drivers, allFields);
  printers(form, "printer", s, PrinterOrigin::Local);
  printers(form, "networkPrinter", s, PrinterOrigin::Network);
  printers(form, "sharedPrinter", s, PrinterOrigin::Shared);
  form.list("host", s.hosts, [](auto& table, auto& host) {
    fields(table, host);
    checkAddress(table, host);
  });
  form.byVidPid("policy", s.policies, allFields);
  const auto valueCalled = [](const char* key) {
    return [key](auto& table, auto& value) { table.field(key, value, kRequired); };
  };
  form.byVidPid("property", s.properties, valueCalled("value"));
  form.byVidPid("setProperty", s.setProperties, valueCalled("value"));
  form.byVidPid("turbo", s.turbo, valueCalled("config"));
  form.byVidPid("joystickMapping", s.joystickMappings, valueCalled("mapping"));
  form.list("command", s.commands, allFields);
  form.list("test", s.tests, allFields);
}

void readScenario(TableReader& root, Scenario& scenario) {
  sections(root, scenario);
}

/// The record that `read` reads from the root table of the text; empty when there are mistakes.
template <typename Record>
std::optional<Record> parse(const std::string& text, const std::string& source,
                            std::vector<std::string>& mistakes,
                            void (*read)(TableReader&, Record&)) {
  TomlDocument document(source);
  Record record;
  try {
    const toml::table table = toml::parse(text);
    TableReader root(table, document);
    read(root, record);
    root.finish();
  } catch (const toml::parse_error& error) {
    document.note(error.source().begin, error.description());
  }
  auto found = document.mistakes();
  if (found.empty()) return record;
  mistakes = std::move(found);
  return std::nullopt;
}

}  // namespace

std::optional<Scenario> parseScenario(const std::string& text, const std::string& source,
                                      std::vector<std::string>& mistakes) {
  return parse(text, source, mistakes, readScenario);
}

std::optional<Scenario> loadScenario(const std::string& path, std::vector<std::string>& mistakes) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  std::array<char, 4096> part;
  // Unlike iterators, read() does not throw when the file is a directory.
  while (file) {
    file.read(part.data(), part.size());
    text.append(part.data(), static_cast<std::size_t>(file.gcount()));
  }
  if (file.eof()) return parseScenario(text, path, mistakes);
  mistakes = {path + ":1:1: cannot be read"};
  return std::nullopt;
}

std::string toToml(const Scenario& scenario) {
  TomlWriter writer;
  sections(writer, scenario);
  return writer.text();
}

std::optional<Device> parseDevice(const std::string& text, const std::string& source,
                                  std::vector<std::string>& mistakes) {
  return parse(text, source, mistakes, readDeviceItself);
}

}  // namespace zq::devservice
