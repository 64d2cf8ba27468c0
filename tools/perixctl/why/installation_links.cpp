// The rest of an installation: the bus daemon, the log, versions and limits.
#include <unistd.h>

#include <array>

#include "platform/util/util.h"
#include "tools/perixctl/service_command.h"
#include "tools/perixctl/why/case.h"
#include "tools/perixctl/why/links.h"
#include "tools/perixctl/why/log_files.h"
#include "tools/perixctl/why/machine.h"

namespace zq::ctl {
namespace {

// Each line takes four of a service: with fewer, most clients get none.
constexpr uint64_t kFewDescriptors = 256;
constexpr uint64_t kSpareDescriptors = 32;

Finding checkDaemon(Case& about) {
  const ZQBusParty& daemon = about.bus.bus;
  if (!about.isLocal() || !daemon.user)
    return open("the kernel does not tell which process listens at the address");
  const std::string text = (daemon.process ? processText(*daemon.process) : "a process") + " of " +
                           userText(*daemon.user);
  const bool isTrusted = *daemon.user == ::geteuid() || *daemon.user == 0;
  return isTrusted ? good(text) : open(text + ", which is another user");
}

Finding checkLogDirectory(Case& /*about*/) {
  std::string directory;
  const std::string remedy = "set XDG_STATE_HOME to a directory of this user";
  if (!GetAppDataPath(directory)) {
    return broken("there is no directory for the log", remedy);
  }
  const std::string obstacle = obstacleToLog(directory);
  if (obstacle.empty()) return good(directory);
  return broken(directory + ": " + obstacle, "mend that, or " + remedy);
}

Finding checkVersions(Case& about) {
  const std::string text = "perixctl, and the library in it, " PERIXCTL_VERSION "; the service";
  try {
    const std::string help = about.run.proxy().GetPerixCmdHelp();
    requireAnswer();
    if (help.find("version") == std::string::npos) return open(text + " does not tell its version");
    return good(text + ": " + textIn(askCommand(about.run, "version").text));
  } catch (const CommandError& error) {
    if (error.code() == ExitCode::TimedOut || error.code() == ExitCode::NoService) throw;
    return open(text + ": not known: " + error.what());
  }
}

Finding checkDescriptors(const std::string& name, int process, const std::string& remedy) {
  const auto use = descriptorUseOf(process);
  if (!use) return open("the kernel does not tell the limit of " + name);
  const uint64_t open = use->open.value_or(0);
  const std::string text = name + " has " +
                           (use->open ? std::to_string(open) : "an unknown number") + " of " +
                           std::to_string(use->most) + " descriptors open";
  const bool isEnough = use->most >= kFewDescriptors && use->most - open >= kSpareDescriptors;
  return isEnough ? good(text) : broken(text, remedy);
}

Finding checkOwnDescriptors(Case& /*about*/) {
  return checkDescriptors("this process", ::getpid(), "raise ulimit -n");
}

Finding checkServiceDescriptors(Case& about) {
  const auto process = about.bus.owner->process;
  if (!about.isLocal()) return open("the service is on another machine");
  if (!process) return open("the bus does not tell the process of the service");
  return checkDescriptors("the service", *process,
                          "raise LimitNOFILE of its systemd unit, or ulimit -n, and restart it");
}

}  // namespace

std::vector<Link> installationLinks() {
  return {{"daemon", {"bus"}, checkDaemon},
          {"log", {}, checkLogDirectory},
          {"versions", {"answer"}, checkVersions},
          {"limits", {}, checkOwnDescriptors},
          {"service-limits", {"service"}, checkServiceDescriptors}};
}

}  // namespace zq::ctl
