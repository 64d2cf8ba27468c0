#include "tests/perixctl/tool_world.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace zq::ctl {
namespace {

constexpr std::chrono::seconds kPatience{30};

ChildProcess::Options optionsFor(const std::string& address, const std::string& words) {
  ChildProcess::Options options;
  options.arguments = {"bash", "-c", "exec " PERIXCTL " " + words};
  // The log goes beside the bus's socket, and away with it.
  const std::string socket = address.substr(address.find('=') + 1);
  options.environment = {{"ZQBUS_ADDRESS", address},
                         {"XDG_STATE_HOME", std::filesystem::path(socket).parent_path()}};
  options.output = ChildProcess::Stream::Capture;
  options.error = ChildProcess::Stream::Capture;
  return options;
}

}  // namespace

ToolWorld::ToolWorld(std::string scenario) : scenario_(std::move(scenario)) {
  startService();
}

void ToolWorld::startService() {
  service_ = startDevelopmentService(bus_.address(), DEVSERVICE, {"--scenario", scenario_});
}

ChildProcess::Result ToolWorld::run(const std::string& words) const {
  return runPerixctlOn(address(), words);
}

std::unique_ptr<ChildProcess> ToolWorld::startReady(const std::string& words) const {
  ChildProcess::Options options = optionsFor(address(), words + " --ready-fd 3");
  options.readiness = true;
  auto child = std::make_unique<ChildProcess>(options);
  if (!child->readinessLine(kPatience)) throw std::runtime_error(child->finish(kPatience).error);
  return child;
}

ChildProcess::Result runPerixctlOn(const std::string& address, const std::string& words) {
  return ChildProcess(optionsFor(address, words)).finish(kPatience);
}

}  // namespace zq::ctl
