#include "perix/test_service.h"

#include <dlfcn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <utility>

#include "service/bus/dev_service.h"
#include "service/scenario/scenario.h"
#include "testing/control_client.h"
#include "tools/embedded/private_bus.h"

namespace zq {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr std::chrono::seconds kAnswer{10};

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

std::vector<PerixTestService::Call> callsOf(const Json& document, const std::string& method) {
  std::vector<PerixTestService::Call> calls;
  for (const Json& call : document) {
    if (!method.empty() && call.at("method") != method) continue;
    calls.push_back({call.at("method"), call.at("arguments").dump(),
                     call.contains("answer") ? call["answer"].dump() : "",
                     call.value("error", "")});
  }
  return calls;
}

/// Sets ZQBUS_ADDRESS for its life.
class AddressInEnvironment {
 public:
  explicit AddressInEnvironment(const std::string& address) {
    if (const char* before = std::getenv(kVariable)) before_ = before;
    ::setenv(kVariable, address.c_str(), 1);
  }
  ~AddressInEnvironment() {
    if (before_) {
      ::setenv(kVariable, before_->c_str(), 1);
    } else {
      ::unsetenv(kVariable);
    }
  }
  AddressInEnvironment(const AddressInEnvironment&) = delete;
  AddressInEnvironment& operator=(const AddressInEnvironment&) = delete;

 private:
  static constexpr const char* kVariable = "ZQBUS_ADDRESS";
  std::optional<std::string> before_;
};

/// Runs the body of a function of the header, which throws PerixTestError alone.
template <typename Body>
auto inTestErrors(const Body& body) try {
  return body();
} catch (const PerixTestError&) {
  throw;
} catch (const std::exception& error) {
  throw PerixTestError(error.what());
}

}  // namespace

class PerixTestService::World {
 public:
  explicit World(Options options);
  ~World();

  PrivateBus& bus() { return bus_; }
  /// Runs the body of a function of PerixTestService: each exception becomes a PerixTestError.
  template <typename Body>
  auto run(const Body& body) const;
  /// The document that the control interface answers.
  Json ask(const std::string& method, const ZQBusMessage& arguments = {},
           std::chrono::milliseconds timeout = kAnswer) const;
  void start();
  void stop();
  void pause();
  void resume();
  void stopBus();
  void startBus();
  int processId() const;

 private:
  void startInside();
  /// Waits until the service is on its bus again, or has ended.
  void awaitReturn() const;
  ChildProcess& program() const;

  const Options options_;
  PrivateBus bus_;
  std::string scenario_;
  const AddressInEnvironment address_{bus_.address()};
  std::unique_ptr<devservice::DevService> inside_;
  std::unique_ptr<ChildProcess> beside_;
  bool isPaused_ = false;
  bool ranWithBus_ = false;  ///< whether the service ran when the bus was stopped
};

PerixTestService::World::World(Options options)
    : options_(std::move(options)), scenario_(options_.scenarioFile) {
  if (!options_.scenarioText.empty()) {
    scenario_ = bus_.directory() / "scenario.toml";
    std::ofstream(scenario_) << options_.scenarioText;
  } else if (scenario_.empty()) {
    scenario_ = officeScenario();
  }
  start();
}

PerixTestService::World::~World() {
  // The threads of the service run in the process that made it.
  if (bus_.isInherited()) static_cast<void>(inside_.release());
}

template <typename Body>
auto PerixTestService::World::run(const Body& body) const {
  return inTestErrors([&] {
    if (bus_.isInherited()) throw PerixTestError("the service belongs to the parent process");
    return body();
  });
}

Json PerixTestService::World::ask(const std::string& method, const ZQBusMessage& arguments,
                                  std::chrono::milliseconds timeout) const {
  return run([&] { return Json::parse(askControl(method, arguments, timeout)); });
}

void PerixTestService::World::start() {
  if (processId() != 0) return;
  isPaused_ = false;
  if (options_.place == Place::OwnProcess) return startInside();
  beside_ = startDevelopmentService(bus_.address(), programOf(options_), {"--scenario", scenario_});
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
  ranWithBus_ = false;
  inside_.reset();
  beside_.reset();
}

void PerixTestService::World::pause() {
  program().pause();
  isPaused_ = true;
}

void PerixTestService::World::resume() {
  program().signal(SIGCONT);
  isPaused_ = false;
}

void PerixTestService::World::stopBus() {
  if (bus_.process().running()) ranWithBus_ = processId() != 0;
  bus_.kill();
}

void PerixTestService::World::startBus() {
  stopBus();
  bus_.restart();
  if (!ranWithBus_ || isPaused_) return;
  awaitReturn();
  start();
}

void PerixTestService::World::awaitReturn() const {
  constexpr std::chrono::milliseconds kBetweenLooks{5};
  const auto end = std::chrono::steady_clock::now() + kAnswer;
  while (processId() != 0 && !isServiceOnBus()) {
    if (std::chrono::steady_clock::now() > end) {
      throw PerixTestError("the service did not return to its bus");
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

ChildProcess& PerixTestService::World::program() const {
  if (beside_ == nullptr || !beside_->running()) {
    throw PerixTestError("no service runs in a process of its own");
  }
  return *beside_;
}

int PerixTestService::World::processId() const {
  if (inside_ != nullptr) return ::getpid();
  return beside_ != nullptr && beside_->running() ? beside_->pid() : 0;
}

// --- The public face -----------------------------------------------------------------------------

PerixTestService::PerixTestService() : PerixTestService(Options()) {}

PerixTestService::PerixTestService(const Options& options)
    : world_(inTestErrors([&] { return std::make_unique<World>(options); })) {}

PerixTestService::~PerixTestService() = default;

const std::string& PerixTestService::busAddress() const {
  return world_->bus().address();
}

void PerixTestService::stop() {
  world_->run([this] { world_->stop(); });
}

void PerixTestService::start() {
  world_->run([this] { world_->start(); });
}

void PerixTestService::pause() {
  world_->run([this] { world_->pause(); });
}

void PerixTestService::resume() {
  world_->run([this] { world_->resume(); });
}

int PerixTestService::processId() const {
  return world_->run([this] { return world_->processId(); });
}

void PerixTestService::stopBus() {
  world_->run([this] { world_->stopBus(); });
}

void PerixTestService::startBus() {
  world_->run([this] { world_->startBus(); });
}

PerixTestService::Device PerixTestService::plug(const std::string& keys) {
  const Json device = world_->ask("plug", with({keys}));
  return {device.at("devNumber"), device.at("sourceId")};
}

void PerixTestService::unplug(uint16_t number) {
  world_->ask("unplug", with({number}));
}

void PerixTestService::print(uint16_t printer, const std::string& document) {
  world_->ask("print", with({printer, document}));
}

void PerixTestService::sendEvent(int32_t desktop, int32_t kind, const void* payload,
                                 std::size_t size) {
  world_->ask("sendEvent", eventOf(desktop, kind, payload, size));
}

void PerixTestService::sendBroadcast(int32_t desktop, int32_t kind, const void* payload,
                                     std::size_t size) {
  world_->ask("sendBroadcast", eventOf(desktop, kind, payload, size));
}

std::string PerixTestService::state() {
  return world_->run([] { return askControl("state"); });
}

void PerixTestService::setFault(const std::string& method, const std::string& kind, int64_t value,
                                int32_t count) {
  world_->ask("setFault", with({method, kind, value, count}));
}

void PerixTestService::clearFaults() {
  world_->ask("clearFaults");
}

std::vector<PerixTestService::Call> PerixTestService::calls(const std::string& method) {
  return callsOf(world_->ask("listCalls"), method);
}

std::vector<PerixTestService::Call> PerixTestService::awaitCalls(
    const std::string& method, int32_t count, std::chrono::milliseconds timeout) {
  return callsOf(world_->ask("awaitCalls", with({method, count}), timeout), method);
}

void PerixTestService::clearCalls() {
  world_->ask("clearCalls");
}

}  // namespace zq
