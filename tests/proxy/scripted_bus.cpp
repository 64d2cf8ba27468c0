#include "tests/proxy/scripted_bus.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "platform/log/log.h"
#include "platform/util/util.h"
#include "platform/zqbus/time_limit.h"
#include "tests/support/messages.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;

struct State {
  std::mutex mutex;
  BusHistory history;
  std::vector<LogLine> log;
  std::shared_ptr<ScriptedService> service;
};
// Never destroyed: static objects of tests call the proxy in their destructors.
State& state() {
  static auto* const made = new State;
  return *made;
}

template <typename Change>
void note(Change change) {
  const std::lock_guard lock(state().mutex);
  change(state());
}

/// Of every question to the bus. Allocates, as the bus would.
void noteLimit() {
  const auto limit = std::make_unique<Clock::time_point>(withinTimeLimit(Clock::time_point::max()));
  note([&](State& s) { s.history.limits.push_back(*limit); });
}

/// Notes a call as the service reads it, which is not told what is secret.
void noteCall(const ZQBusMessage& sent, int timeoutMs) {
  ZQBusMessage received(ZQBusMessageType::MethodCall, sent.name());
  for (const ZQBusArgument& argument : sent.arguments()) received.append(argument);
  SentCall call{received.toDebugString().substr(sizeof "call"), timeoutMs};
  note([&](State& s) { s.history.calls.push_back(std::move(call)); });
}

ZQBusMessage idOf(const ZQBusMessage& request) {
  std::string name;
  return message(int32_t{numberAtEnd(request.readString(name, 0))});
}

class Interface : public ScriptedService {
 public:
  explicit Interface(std::string owner) : owner_(std::move(owner)) {}

  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override {
    note([&](State& s) { s.history.made.push_back(method); });
    return std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodCall, method);
  }
  std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage> message,
                                                      int timeoutMs) override {
    noteCall(*message, timeoutMs);
    const bool lookUp = message->name() == "getVmListSize" && !script().answersLookUps;
    return std::make_shared<ZQBusMessage>(lookUp ? idOf(*message) : script().answer(*message));
  }
  void callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                     int timeoutMs) override {
    noteCall(*message, timeoutMs);
    onReply(std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodReturn, std::string()));
  }
  const std::string& owner() const override { return owner_; }
  bool addEventListener(const std::string&, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags) override {
    listener_.reset(callback);
    noteLimit();
    return script().offersEvents;
  }
  void removeEventListener(const std::string&, ZQBusEventCallback*) override { listener_.reset(); }
  void setDeathCallback(std::function<void()> onDeath) override { death_ = std::move(onDeath); }

  std::function<void()> death() const override { return death_; }
  std::function<void()> delivery(int desktop, int kind, const std::string& payload) const override {
    const auto event =
        std::make_shared<ZQBusMessage>(message(int32_t{desktop}, int32_t{kind}, bytes(payload)));
    return [listener = listener_, event] { (*listener)(event); };
  }

 private:
  const std::string owner_;
  std::function<void()> death_;
  std::shared_ptr<ZQBusEventCallback> listener_;
};

class ScriptedBus : public ZQBusSerivceManager {
 public:
  bool isServiceRegistered(const std::string&) override {
    noteLimit();
    note([](State& s) { ++s.history.attempts; });
    return script().isRegistered();
  }
  std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string&,
                                                                ZQBusSecurityFlags, int) override {
    noteLimit();
    if (!script().offersInterface) return nullptr;
    auto made = std::make_shared<Interface>(script().owner);
    note([&](State& s) {
      ++s.history.interfaces;
      s.service = made;
    });
    return made;
  }
  bool addEventListener(const std::string&, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags) override {
    const std::unique_ptr<ZQBusEventCallback> owned(callback);
    noteLimit();
    note([](State& s) { ++s.history.broadcasts; });
    return true;
  }
  uint64_t droppedEvents() const override { return 0; }
  void waitForCallbacks() override {}
};

}  // namespace

BusScript& script() {
  static auto* const made = new BusScript;
  return *made;
}

std::shared_ptr<ScriptedService> service() {
  const std::lock_guard lock(state().mutex);
  return state().service;
}

BusHistory history() {
  const std::lock_guard lock(state().mutex);
  return state().history;
}

std::vector<LogLine> takeLog() {
  std::vector<LogLine> lines;
  note([&](State& s) { lines.swap(s.log); });
  return lines;
}

int linesWith(const std::vector<LogLine>& log, const std::string& function,
              const std::string& text) {
  int count = 0;
  for (const LogLine& line : log) {
    if (!function.empty() && line.function != function) continue;
    if (line.text.find(text) != std::string::npos) ++count;
  }
  return count;
}

// --- In the place of the libraries ---------------------------------------------------------------

ZQBusSerivceManager* ZQBusSerivceManager::initSync(int) {
  noteLimit();
  static auto* const bus = new ScriptedBus;
  return script().exists ? bus : nullptr;
}

ZQBusProblem lastZQBusProblem() {
  if (!script().exists) return {ZQBusProblem::Kind::NoBus, "no bus"};
  return {ZQBusProblem::Kind::NoService, "no owner"};
}

void setZQBusLogSink(ZQBusLogSink) {}

void Sleep(unsigned int) {
  note([](State& s) { ++s.history.sleeps; });
  script().sleep();
}

void feroxLogInit(const char*) {}

void orvaneLogPrint(int, int, const char* tag, const char* format, ...) try {
  if (!script().keepsLog) return;
  char line[2000];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  // "file function(line): text"
  const std::string text = line;
  const auto begin = text.find(' ') + 1;
  const auto end = text.find('(', begin);
  note([&](State& s) {
    s.log.push_back({tag, text.substr(begin, end - begin), text.substr(text.find(": ", end) + 2)});
  });
} catch (const std::bad_alloc&) {
  // A line is lost, as in the real log.
}

}  // namespace zq
