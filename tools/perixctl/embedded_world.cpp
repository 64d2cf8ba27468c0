#include "tools/perixctl/embedded_world.h"

#include <cstdlib>
#include <filesystem>

#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

constexpr const char* kServiceProgram = "perix-devservice";
// With which the service ends when its scenario is wrong.
constexpr int kBadScenario = 2;

std::string serviceProgram() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = self.parent_path() / kServiceProgram;
  if (!error && std::filesystem::exists(beside, error)) return beside;
  return kServiceProgram;
}

std::string withoutLineEnd(std::string text) {
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

}  // namespace

EmbeddedWorld::EmbeddedWorld(const std::string& scenario) try {
  bus_ = std::make_unique<PrivateBus>();
  setenv("ZQBUS_ADDRESS", bus_->address().c_str(), 1);
  std::vector<std::string> arguments;
  if (!scenario.empty()) arguments = {"--scenario", scenario};
  service_ = startDevelopmentService(bus_->address(), serviceProgram(), arguments);
} catch (const NotReady& error) {
  const bool scenarioIsBad = error.status() == kBadScenario && !error.words().empty();
  throw CommandError(scenarioIsBad ? ExitCode::Usage : ExitCode::NoService,
                     withoutLineEnd(scenarioIsBad ? error.words() : error.what()));
} catch (const std::runtime_error& error) {
  throw CommandError(ExitCode::NoService, error.what());
}

}  // namespace zq::ctl
