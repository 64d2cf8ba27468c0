#include "tests/perixctl/tool_world.h"

#include <stdexcept>

#include "tests/support/token.h"
#include "tests/support/watched.h"

namespace zq::ctl {
namespace {

std::filesystem::path directoryOf(const std::string& address) {
  return std::filesystem::path(address.substr(address.find('=') + 1)).parent_path();
}

ChildProcess::Options optionsFor(const std::string& address, const std::string& words,
                                 Environment environment) {
  environment["ZQBUS_ADDRESS"] = address;
  environment.try_emplace("LC_ALL", "C.UTF-8");
  // The log goes with the bus.
  environment.try_emplace("XDG_STATE_HOME", directoryOf(address));
  return {.arguments = {"bash", "-c", "exec " PERIXCTL " " + words},
          .environment = std::move(environment),
          .output = ChildProcess::Stream::Capture,
          .error = ChildProcess::Stream::Capture};
}

}  // namespace

ToolWorld::~ToolWorld() {
  service.stop();
  expectNoTokenIn(directory());
}

std::filesystem::path ToolWorld::directory() const {
  return directoryOf(service.busAddress());
}

ChildProcess::Result ToolWorld::run(const std::string& words, const Environment& added) const {
  return runPerixctlOn(service.busAddress(), words, added);
}

std::string ToolWorld::succeed(const std::string& words) const {
  const ChildProcess::Result result = run(words);
  EXPECT_EQ(result.status, 0) << words << ": " << result.error;
  return result.output;
}

std::unique_ptr<ChildProcess> ToolWorld::startReady(const std::string& words,
                                                    const Environment& added) const {
  ChildProcess::Options options = optionsFor(service.busAddress(), words + " --ready-fd 3", added);
  options.readiness = true;
  auto child = std::make_unique<ChildProcess>(options);
  if (!child->readinessLine(kPatience)) throw std::runtime_error(child->finish(kPatience).error);
  return child;
}

ChildProcess::Result runPerixctlOn(const std::string& address, const std::string& words,
                                   const Environment& added) {
  return ChildProcess(optionsFor(address, words, added)).finish(kPatience);
}

}  // namespace zq::ctl
