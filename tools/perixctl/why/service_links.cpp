// From the bus to a service that answers.
#include <cstdlib>
#include <string_view>

#include "tools/perixctl/bus.h"
#include "tools/perixctl/why/case.h"
#include "tools/perixctl/why/links.h"
#include "tools/perixctl/why/machine.h"

namespace zq::ctl {
namespace {

/// The process and its user; of another machine, by their numbers.
std::string textOf(const ZQBusParty& party, bool isLocal) {
  std::string text = "an unknown process";
  if (party.process) {
    text = isLocal ? processText(*party.process) : "process " + std::to_string(*party.process);
  }
  if (!party.user) return text;
  return text + " of " + (isLocal ? userText(*party.user) : "user " + std::to_string(*party.user));
}

Finding checkBus(Case& about) {
  about.bus = inspectBus();
  const ZQBusInspection& bus = about.bus;
  if (bus.problem.empty()) {
    return good(about.isLocal() ? bus.address + " (" + bus.variable + ")"
                                : "the session bus of " + about.run.globals.host);
  }
  if (!about.isLocal()) {
    return withoutService(
        "no connection to the session bus of " + about.run.globals.host,
        "ssh -T " + shellWord(about.run.globals.host) + " true shows whether ssh connects");
  }
  if (bus.address.empty()) {
    return withoutService(bus.problem,
                          "start a session bus (dbus-run-session), or set ZQBUS_ADDRESS");
  }
  return withoutService(bus.problem, "the address comes from " + bus.variable +
                                         ": set it to a bus that runs and admits this user");
}

Finding checkService(Case& about) {
  const ZQBusInspection& bus = about.bus;
  if (bus.owner) return good(bus.name + " is " + textOf(*bus.owner, about.isLocal()));
  if (!bus.isActivatable) {
    return withoutService("nobody owns " + bus.name + " on this bus",
                          "start the service (to try things out: perix-devservice)");
  }
  return withoutService(
      "nobody owns " + bus.name + " on this bus, which can start the service",
      "the next call starts it, unless ZQBUS_ACTIVATE=0: perixctl service status");
}

Finding checkUser(Case& about) {
  const auto user = about.bus.owner->user;
  if (!user) {
    return withoutService("the bus does not tell the user of the service, so no client trusts it",
                          "use a bus that tells the users of its clients");
  }
  if (*user == about.bus.user) return good("the service runs as this user");
  if (*user == 0) return good("the service runs as root");
  return withoutService(
      "the service runs as " + userText(*user) + ", and clients trust this user and root alone",
      "run the service as " + userText(about.bus.user) + ", or use the bus of " + userText(*user) +
          " as that user");
}

Finding checkAnswer(Case& about) try {
  about.desktops = about.run.proxy().GetVmList();
  requireAnswer();
  return good("the service answers, and knows " + counted(about.desktops.size(), "desktop"));
} catch (const CommandError& error) {
  if (error.code() != ExitCode::TimedOut) throw;
  const auto process = about.bus.owner->process;
  return broken(std::string("the service hangs: ") + error.what(),
                "look at " + (process ? processText(*process) : "its process") +
                    " and its log, or restart it");
}

/// A service without a line is slower, and nothing else.
Finding checkLine(Case& /*about*/) {
  const char* setting = std::getenv("ZQBUS_DIRECT");
  const auto way = wayToService();
  if (!way) throw CommandError(ExitCode::NoService, "the service has gone meanwhile");
  if (*way != ZQBusWay::Broker) return good("calls take a direct line");
  if (setting != nullptr && std::string_view(setting) == "0") {
    return open("calls go through the broker, as ZQBUS_DIRECT=0 asks");
  }
  return open(
      "calls go through the broker: the service gave no direct line (it gives 256 at most, and "
      "fewer when it has few descriptors)");
}

}  // namespace

std::vector<Link> serviceLinks() {
  return {{"bus", {}, checkBus},
          {"service", {"bus"}, checkService},
          {"user", {"service"}, checkUser},
          {"answer", {"service", "user"}, checkAnswer},
          {"line", {"answer"}, checkLine}};
}

}  // namespace zq::ctl
