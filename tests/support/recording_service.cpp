#include "recording_service.h"

#include <stdexcept>

#include "perix/service_methods.h"
#include "tests/support/token.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

namespace fs = std::filesystem;

class StateDirectory : public testing::Environment {
 public:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "perix-test-XXXXXX").string();
    path = ::mkdtemp(pattern.data());
    ::setenv("XDG_STATE_HOME", path.c_str(), 1);
  }
  void TearDown() override {
    expectNoTokenIn(path);
    // The library's threads go on until the process ends, and may still log.
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }

  fs::path path;
};

auto* const directory =
    static_cast<StateDirectory*>(testing::AddGlobalTestEnvironment(new StateDirectory));

/// The secret methods; traces must know them.
ZQBusServiceDescription description() {
  ZQBusServiceDescription all;
  for (const ServiceMethod& method : kServiceMethods) {
    if (method.secret) all.methods.push_back({method.name, {}, {}, true});
  }
  return all;
}

}  // namespace

RecordingService::RecordingService() {
  answerWith(message(int32_t{0}));
  std::string error;
  service_ = ZQBusService::claim(
      "perix", description(), [this](const std::shared_ptr<ZQBusCall>& call) { handle(call); },
      error);
  if (service_ == nullptr) throw std::runtime_error(error);
}

RecordingService::~RecordingService() {
  service_.reset();
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  const auto isLate = [end = std::chrono::steady_clock::now() + kPatience] {
    return std::chrono::steady_clock::now() > end;
  };
  while (manager != nullptr && manager->isServiceRegistered("perix") && !isLate()) continue;
  EXPECT_FALSE(isLate()) << "the name is still owned";
}

void RecordingService::answerWith(Handler handler) {
  state_.change([&](State& state) { state.handler = std::move(handler); });
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

std::string logText() {
  std::ostringstream text;
  for (const auto& entry : fs::recursive_directory_iterator(directory->path)) {
    if (entry.is_regular_file()) text << std::ifstream(entry.path()).rdbuf();
  }
  return text.str();
}

}  // namespace zq
