#include "perix/test_service.h"

#include <dlfcn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "service/bus/dev_service.h"
#include "service/scenario/scenario.h"
#include "testing/control_client.h"
#include "tools/embedded/private_bus.h"

namespace zq {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

/// A file of the installation, or of the build tree, that this code is part of; empty without one.
std::string installed(const char* file) {
  Dl_info self{};
  if (::dladdr(reinterpret_cast<const void*>(&installed), &self) == 0) return {};
  std::error_code ignored;
  fs::path directory = fs::canonical(self.dli_fname, ignored).parent_path();
  for (; directory.has_relative_path(); directory = directory.parent_path()) {
    if (fs::exists(directory / file, ignored)) return directory / file;
  }
  return {};
}

std::string officeScenario() {
  const std::string office = installed("share/perix/scenarios/office.toml");
  return office.empty() ? PERIX_SCENARIO_DIR "/office.toml" : office;
}

std::string programOf(const PerixTestService::Options& options) {
  if (!options.program.empty()) return options.program;
  const std::string program = installed("bin/perix-devservice");
  return program.empty() ? "perix-devservice" : program;
}

devservice::Scenario load(const std::string& file) {
  std::vector<std::string> mistakes;
  const auto scenario = devservice::loadScenario(file, mistakes);
  if (scenario) return *scenario;
  std::string text;
  for (const std::string& mistake : mistakes) text += (text.empty() ? "" : "\n") + mistake;
  throw PerixTestError(text);
}

ZQBusMessage with(std::initializer_list<ZQBusArgument> arguments) {
  ZQBusMessage message;
  for (const ZQBusArgument& argument : arguments) message.append(argument);
  return message;
}

ZQBusMessage eventOf(int32_t desktop, int32_t kind, const void* payload, std::size_t size) {
  ZQBusMessage message = with({desktop, kind});
  if (payload != nullptr) {
    message.append(ZQBusBytes::copyOf(payload, static_cast<uint32_t>(size)));
  }
  return message;
}

std::vector<PerixTestService::Call> callsOf(const std::string& document,
                                            const std::string& method) {
  std::vector<PerixTestService::Call> calls;
  for (const Json& call : Json::parse(document)) {
    if (!method.empty() && call.at("method") != method) continue;
    calls.push_back({call.at("method"), call.at("arguments").dump(),
                     call.contains("answer") ? call["answer"].dump() : "",
                     call.value("error", "")});
  }
  return calls;
}

}  // namespace

class PerixTestService::World {
 public:
  explicit World(Options options);
  ~World();

  PrivateBus& bus() { return bus_; }
  void start();
  void stop();
  ChildProcess& program() const;
  int processId() const;

 private:
  void startInside();

  const Options options_;
  PrivateBus bus_;
  std::string scenario_;
  std::optional<std::string> addressBefore_;
  std::unique_ptr<devservice::DevService> inside_;
  std::unique_ptr<ChildProcess> beside_;
};

PerixTestService::World::World(Options options)
    : options_(std::move(options)), scenario_(options_.scenarioFile) {
  if (!options_.scenarioText.empty()) {
    scenario_ = bus_.directory() / "scenario.toml";
    std::ofstream(scenario_) << options_.scenarioText;
  } else if (scenario_.empty()) {
    scenario_ = officeScenario();
  }
  if (const char* before = std::getenv("ZQBUS_ADDRESS")) addressBefore_ = before;
  ::setenv("ZQBUS_ADDRESS", bus_.address().c_str(), 1);
  start();
}

PerixTestService::World::~World() {
  stop();
  if (addressBefore_) {
    ::setenv("ZQBUS_ADDRESS", addressBefore_->c_str(), 1);
  } else {
    ::unsetenv("ZQBUS_ADDRESS");
  }
}

void PerixTestService::World::start() {
  if (options_.place == Place::OwnProcess) {
    if (inside_ == nullptr) startInside();
  } else if (beside_ == nullptr || !beside_->running()) {
    beside_ =
        startDevelopmentService(bus_.address(), programOf(options_), {"--scenario", scenario_});
  }
}

void PerixTestService::World::startInside() {
  devservice::DevService::Options options{load(scenario_)};
  options.onEnd = [](devservice::Ending) {};
  auto service = std::make_unique<devservice::DevService>(std::move(options));
  std::string error;
  if (!service->start(error)) throw PerixTestError("cannot start the service: " + error);
  inside_ = std::move(service);
}

void PerixTestService::World::stop() {
  inside_.reset();
  if (beside_ != nullptr) beside_->kill();
  beside_.reset();
}

ChildProcess& PerixTestService::World::program() const {
  if (beside_ == nullptr) throw PerixTestError("no service runs in a process of its own");
  return *beside_;
}

int PerixTestService::World::processId() const {
  if (inside_ != nullptr) return ::getpid();
  return beside_ != nullptr ? beside_->pid() : 0;
}

// --- The public face -----------------------------------------------------------------------------

PerixTestService::PerixTestService() : PerixTestService(Options()) {}

PerixTestService::PerixTestService(const Options& options) try
    : world_(std::make_unique<World>(options)) {
} catch (const PerixTestError&) {
  throw;
} catch (const std::exception& error) {
  throw PerixTestError(error.what());
}

PerixTestService::~PerixTestService() = default;

const std::string& PerixTestService::busAddress() const {
  return world_->bus().address();
}

void PerixTestService::stop() {
  world_->stop();
}

void PerixTestService::start() {
  world_->start();
}

void PerixTestService::pause() {
  world_->program().pause();
}

void PerixTestService::resume() {
  world_->program().signal(SIGCONT);
}

int PerixTestService::processId() const {
  return world_->processId();
}

void PerixTestService::stopBus() {
  world_->bus().kill();
}

void PerixTestService::startBus() {
  world_->bus().restart();
}

PerixTestService::Device PerixTestService::plug(const std::string& keys) {
  const Json device = Json::parse(askControl("plug", with({keys})));
  return {device.at("devNumber"), device.at("sourceId")};
}

void PerixTestService::unplug(uint16_t number) {
  askControl("unplug", with({number}));
}

void PerixTestService::print(uint16_t printer, const std::string& document) {
  askControl("print", with({printer, document}));
}

void PerixTestService::sendEvent(int32_t desktop, int32_t kind, const void* payload,
                                 std::size_t size) {
  askControl("sendEvent", eventOf(desktop, kind, payload, size));
}

void PerixTestService::sendBroadcast(int32_t desktop, int32_t kind, const void* payload,
                                     std::size_t size) {
  askControl("sendBroadcast", eventOf(desktop, kind, payload, size));
}

std::string PerixTestService::state() {
  return askControl("state");
}

void PerixTestService::setFault(const std::string& method, const std::string& kind, int64_t value,
                                int32_t count) {
  askControl("setFault", with({method, kind, value, count}));
}

void PerixTestService::clearFaults() {
  askControl("clearFaults");
}

std::vector<PerixTestService::Call> PerixTestService::calls(const std::string& method) {
  return callsOf(askControl("listCalls"), method);
}

std::vector<PerixTestService::Call> PerixTestService::awaitCalls(
    const std::string& method, int32_t count, std::chrono::milliseconds timeout) {
  return callsOf(askControl("awaitCalls", with({method, count}), timeout), method);
}

void PerixTestService::clearCalls() {
  askControl("clearCalls");
}

}  // namespace zq
