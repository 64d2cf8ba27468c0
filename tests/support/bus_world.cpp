#include "bus_world.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/zqbus/sdbus/sd_bus_open.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

namespace fs = std::filesystem;

class World : public testing::Environment {
 public:
  void SetUp() override {
    bus = std::make_unique<PrivateBus>();
    ::setenv("ZQBUS_ADDRESS", bus->address().c_str(), 1);
    std::string pattern = (fs::temp_directory_path() / "perix-test-XXXXXX").string();
    stateDirectory = ::mkdtemp(pattern.data());
    ::setenv("XDG_STATE_HOME", stateDirectory.c_str(), 1);
  }
  void TearDown() override {
    bus.reset();
    // The library's threads go on until the process ends, and may still log.
    std::error_code ignored;
    fs::remove_all(stateDirectory, ignored);
  }

  std::unique_ptr<PrivateBus> bus;
  fs::path stateDirectory;
};

auto* const world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

int numberAtEnd(const std::string& name) {
  const auto dash = name.rfind('-');
  return dash == std::string::npos ? 0 : std::atoi(name.c_str() + dash + 1);
}

/// Waits until the bus, if there is one, has taken note that nobody owns the name any more.
void waitUntilUnowned(const std::string& name) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::string error;
  const SdBus bus = openSdBus(deadline, Descriptors::Refused, error);
  if (bus == nullptr) return;
  while (sd_bus_get_name_creds(bus.get(), name.c_str(), 0, nullptr) >= 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ADD_FAILURE() << name << " is still owned";
      return;
    }
  }
}

}  // namespace

PrivateBus& testBus() {
  return *world->bus;
}

std::string logText() {
  std::ostringstream text;
  for (const auto& entry : fs::recursive_directory_iterator(world->stateDirectory)) {
    if (entry.is_regular_file()) text << std::ifstream(entry.path()).rdbuf();
  }
  return text.str();
}

bool usesDirectLines() {
  const char* wish = std::getenv("ZQBUS_DIRECT");
  return wish == nullptr || std::string(wish) != "0";
}

RecordingService::RecordingService() {
  answerWith(message(int32_t{0}));
  std::string error;
  service_ = ZQBusService::claim(
      "perix", {}, [this](const std::shared_ptr<ZQBusCall>& call) { handle(call); }, error);
  if (service_ == nullptr) throw std::runtime_error(error);
}

RecordingService::~RecordingService() {
  service_.reset();
  waitUntilUnowned(serviceName("perix"));
}

void RecordingService::answerWith(Handler handler) {
  state_.change([&](State& state) { state.handler = std::move(handler); });
}

void RecordingService::answerWith(const ZQBusMessage& reply) {
  answerWith([reply](const std::shared_ptr<ZQBusCall>& call) { call->reply(reply); });
}

void RecordingService::handle(const std::shared_ptr<ZQBusCall>& call) {
  if (call->message().name() == "getVmListSize") {
    std::string name;
    call->message().readString(name, 0);
    state_.change([](State& state) { ++state.lookups; });
    return call->reply(message(int32_t{numberAtEnd(name)}));
  }
  Handler handler;
  state_.change([&](State& state) {
    state.calls.push_back(call->message().toDebugString().substr(sizeof "call"));
    handler = state.handler;
  });
  handler(call);
}

std::vector<std::string> RecordingService::takeCalls() {
  std::vector<std::string> calls;
  state_.change([&](State& state) { calls.swap(state.calls); });
  return calls;
}

int RecordingService::idLookups() {
  return state_.get().lookups;
}

void RecordingService::sendEvent(int desktop, int kind) {
  service_->sendEvent("perixevent", message(int32_t{desktop}, int32_t{kind}));
}

void RecordingService::sendEvent(int desktop, int kind, const void* payload, std::size_t size) {
  const auto block = ZQBusBytes::copyOf(payload, static_cast<uint32_t>(size));
  service_->sendEvent("perixevent", message(int32_t{desktop}, int32_t{kind}, block));
}

std::unique_ptr<ChildProcess> startService() {
  return startDevelopmentService(testBus().address(), PERIX_DEVSERVICE, {});
}

std::string control(const std::string& method, const ZQBusMessage& arguments) {
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  const auto service =
      manager->getServiceProxyInterface("perixcontrol", ZQBusSecurityFlags::None, 1);
  const auto call = service->makeMethodCallMessage(method);
  for (const ZQBusArgument& argument : arguments.arguments()) call->append(argument);
  std::string answer;
  return service->callWithReplyBlocking(call, 10000)->readString(answer, 0);
}

int openDescriptors() {
  const fs::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

long residentKib() {
  if (kSanitized) return 0;
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * 4;
}

}  // namespace zq
