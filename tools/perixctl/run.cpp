#include "tools/perixctl/run.h"

#include <new>
#include <utility>

#include "perix/failure.h"
#include "tools/perixctl/choice.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

bool isUnconnected(PerixFailure failure) {
  return failure == PerixFailure::NoBus || failure == PerixFailure::NoService;
}

/// Why there is no connection to the bus, or no service on it, of another machine.
std::string noServiceText(const std::string& host) {
  const bool isBus = PerixLastFailure().failure == PerixFailure::NoBus;
  return (isBus ? "no connection to the session bus of "
                : "nobody owns org.zqbus.perix on the session bus of ") +
         host;
}

/// Why there is no connection, and a way out.
std::string noServiceText() {
  const PerixFailureReport report = PerixLastFailure();
  const char* remedy = report.failure == PerixFailure::NoBus
                           ? "Set ZQBUS_ADDRESS to the bus where the service runs"
                           : "Start the service (to try things out: perix-devservice), set "
                             "ZQBUS_ADDRESS to the bus where it runs";
  return report.text + ".\n" + remedy +
         ",\nor bring a bus and a service up for one command: perixctl --embedded ...\n"
         "perixctl doctor tells more.";
}

}  // namespace

PerixProxy& Run::localProxy() {
  terminal.keepForeignOutputAway(globals.verbose);
  PerixProxy* proxy = PerixProxy::getInstance();
  if (proxy == nullptr) throw std::bad_alloc();
  return *proxy;
}

PerixProxy& Run::proxy() {
  PerixProxy& proxy = localProxy();
  // The first call of getInstance() in this process has just tried to connect.
  const bool hasFailed =
      !std::exchange(hasTried_, true) && isUnconnected(PerixLastFailure().failure);
  if (!hasFailed && proxy.Init() == 0) return proxy;
  throw CommandError(ExitCode::NoService,
                     globals.host.empty() ? noServiceText() : noServiceText(globals.host));
}

std::string Run::desktop() {
  std::string name = arguments.text("DESKTOP");
  if (!name.empty() && proxy().GetVmIdInt(name) == 0) {
    requireAnswer();
    throw CommandError(ExitCode::NotFound, "no desktop is called '" + name + "'");
  }
  return name;
}

uint16_t Run::deviceNumber() {
  const std::string text = arguments.text("DEVICE");
  if (const auto number = parseNumber<uint16_t>(text)) return *number;
  const std::vector<Choice> devices = deviceChoices(proxy());
  if (const auto source = parseNumber<uint64_t>(text)) {
    for (const Choice& device : devices) {
      if (device.sourceId == *source) return device.number;
    }
    throw CommandError(ExitCode::NotFound, "no device has the source id " + text);
  }
  return chosen("device", devices, text).number;
}

std::list<CommonDevice*> Run::deviceRecords() {
  const uint16_t number = deviceNumber();
  auto records = proxy().GetDeviceStatus(number);
  requireAnswer();
  if (!records.empty()) return records;
  throw CommandError(ExitCode::NotFound, "no device " + std::to_string(number));
}

uint64_t Run::deviceSource() {
  const std::string text = arguments.text("DEVICE");
  const auto number = parseNumber<uint64_t>(text);
  if (number && *number > UINT16_MAX) return *number;
  const std::vector<Choice> devices = deviceChoices(proxy());
  if (!number) return chosen("device", devices, text).sourceId;
  for (const Choice& device : devices) {
    if (device.number == *number) return device.sourceId;
  }
  return *number;
}

uint16_t Run::printerNumber() {
  const std::string text = arguments.text("PRINTER");
  if (const auto number = parseNumber<uint16_t>(text)) return *number;
  return chosen("printer", printerChoices(proxy()), text).number;
}

}  // namespace zq::ctl
