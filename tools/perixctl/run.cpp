#include "tools/perixctl/run.h"

#include <cstdlib>
#include <new>

#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

std::string noServiceText() {
  const char* address = std::getenv("ZQBUS_ADDRESS");
  const std::string bus = address != nullptr && *address != '\0'
                              ? std::string("the bus at ") + address + " (ZQBUS_ADDRESS)"
                              : "the user's session bus";
  return "no peripheral service: nothing answers to its name on " + bus +
         ".\nStart the service (to try things out: perix-devservice), set ZQBUS_ADDRESS to the bus "
         "where it runs,\nor bring a bus and a service up for one command: perixctl --embedded ...";
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
  if (proxy.Init() != 0) throw CommandError(ExitCode::NoService, noServiceText());
  return proxy;
}

std::string Run::desktop() {
  std::string name = arguments.text("DESKTOP");
  if (!name.empty() && proxy().GetVmIdInt(name) == 0) {
    requireAnswer();
    throw CommandError(ExitCode::NotFound, "no desktop is called '" + name + "'");
  }
  return name;
}

}  // namespace zq::ctl
