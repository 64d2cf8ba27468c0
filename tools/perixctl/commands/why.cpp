// device why and doctor: the causes for which a device is not redirected.
#include "tools/perixctl/command.h"
#include "tools/perixctl/why/case.h"
#include "tools/perixctl/why/links.h"

namespace zq::ctl {
namespace {

/// The links of two groups, one behind the other.
std::vector<Link> chain(std::vector<Link> first, const std::vector<Link>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Outcome explainDevice(Run& run) {
  Case about{.run = run};
  about.desktop = run.arguments.text("DESKTOP");
  about.root = run.arguments.text("--root");
  return walk(chain(serviceLinks(), deviceLinks()), about, Remedies::OfTheFirst,
              run.terminal.showsUtf8());
}

Outcome explainInstallation(Run& run) {
  Case about{.run = run};
  return walk(chain(serviceLinks(), installationLinks()), about, Remedies::OfAll,
              run.terminal.showsUtf8());
}

}  // namespace

std::vector<Command> whyCommands() {
  // The commands about devices stand behind these.
  return {{"doctor", {}, "Check the bus, the service and the surroundings", explainInstallation},
          {"device why",
           {desktopArgument(),
            deviceArgument(),
            {"--root", ArgumentKind::File, "The machine's file system, where it is not /",
             Presence::Optional}},
           "Tell why a device is not redirected into a desktop, without changing anything",
           explainDevice}};
}

}  // namespace zq::ctl
