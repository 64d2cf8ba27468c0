// The control interface, described in docs/control-interface.md.
#include <unistd.h>
#include <csignal>
#include <iterator>
#include <utility>

#include "service/bus/dev_service.h"
#include "service/scenario/scenario.h"
#include "service/scenario/state.h"

namespace zq::devservice {
namespace {

Answer document(const Json& json) {
  return Answer::text(asText(json));
}

Answer done() {
  return document(Json::object());
}

/// An empty document when the result is Done, else an error in words.
Answer doneOr(Result result) {
  return result == Result::Done ? done() : Answer::error(TextOf(result));
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

}  // namespace

void DevService::onControlCall(const std::shared_ptr<ZQBusCall>& call) {
  const MutexLock lock(mutex_);
  const std::string& name = call->message().name();
  if (control_.find(name) == nullptr) {
    return call->fail("no method " + name + "; there are: " + control_.names());
  }
  control_.handle(call->message(), [call](const Answer& answer) { answer.sendTo(*call); });
}

std::vector<Method> DevService::controlMethods() {
  std::vector<Method> all;
  for (auto methods : {modelMethods(), faultMethods(), lifeMethods()}) {
    std::move(methods.begin(), methods.end(), std::back_inserter(all));
  }
  return all;
}

std::vector<Method> DevService::modelMethods() {
  return {
      {{"plug", "device:s", "json:s"},
       [this](const Call& call) REQUIRES(mutex_) { return plug(call); }},
      {{"unplug", "device:q", "json:s"},
       [this](const Call& call)
           REQUIRES(mutex_) { return doneOr(world_.devices.unplug(call.uint16(0))); }},
      {{"print", "printer:q document:s", "json:s"},
       [this](const Call& call) REQUIRES(mutex_) {
         return doneOr(world_.activities.print(call.uint16(0), call.text(1)));
       }},
      {{"sendEvent", "desktop:i kind:i ?payload:ay", "json:s"},
       [this](const Call& call) REQUIRES(mutex_) { return sendFromControl(call, Way::Event); }},
      {{"sendBroadcast", "desktop:i kind:i ?payload:ay", "json:s"},
       [this](const Call& call) REQUIRES(mutex_) { return sendFromControl(call, Way::Broadcast); }},
      {{"state", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) { return document(stateAsJson(world_)); }},
  };
}

std::vector<Method> DevService::faultMethods() {
  return {
      {{"setFault", "method:s kind:s value:x count:i", "json:s"},
       [this](const Call& call) REQUIRES(mutex_) { return setFault(call); }},
      {{"clearFaults", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) {
         faults_.clear();
         return document(faults_.list());
       }},
      {{"listFaults", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) { return document(faults_.list()); }},
      {{"listCalls", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) { return document(calls_.list()); }},
      {{"awaitCalls", "method:s count:i", "json:s"},
       [this](const Call& call) REQUIRES(mutex_) { return awaitCalls(call); }},
      {{"clearCalls", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) {
         calls_.clear();
         return done();
       }},
  };
}

std::vector<Method> DevService::lifeMethods() {
  return {
      {{"reset", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) {
         world_.load(options_.scenario);
         return done();
       }},
      {{"crash", "", "json:s"},
       [](const Call&) {
         ::kill(::getpid(), SIGKILL);
         return done();
       }},
      {{"stop", "", "json:s"},
       [this](const Call&) REQUIRES(mutex_) {
         // The timer's task waits for the lock, and so until this call is answered.
         timer_.after(std::chrono::milliseconds(0), [this] { options_.onEnd(Ending::Stopped); });
         return done();
       }},
  };
}

Answer DevService::plug(const Call& call) {
  std::vector<std::string> mistakes;
  auto device = parseDevice(call.text(0), "plug", mistakes);
  if (!device) return Answer::error(joined(mistakes));
  uint16_t number = 0;
  const Result result = world_.devices.plug(std::move(*device), number);
  if (result != Result::Done) return Answer::error(TextOf(result));
  const auto& devices = world_.devices.all();
  return document({{"devNumber", number}, {"sourceId", devices.at(number).sourceId}});
}

Answer DevService::sendFromControl(const Call& call, Way way) {
  std::optional<ZQBusBytes> payload;
  const auto& arguments = call.message.arguments();
  if (arguments.size() > 2) payload = std::get<ZQBusBytes>(arguments[2]);
  sendRaw(way, call.desktop(), call.int32(1), payload);
  return done();
}

Answer DevService::unknownMethod(const std::string& method) const {
  return Answer::error("no method " + method + "; there are: " + perix_.names());
}

Answer DevService::setFault(const Call& call) {
  const std::string method = call.text(0);
  if (method != "*" && perix_.find(method) == nullptr) return unknownMethod(method);
  std::string wrong = faults_.set(method, call.text(1), call.int64(2), call.int32(3));
  if (!wrong.empty()) return Answer::error(std::move(wrong));
  return document(faults_.list());
}

Answer DevService::awaitCalls(const Call& call) {
  const std::string method = call.text(0);
  const int32_t count = call.int32(1);
  constexpr auto kMost = static_cast<int32_t>(CallLog::kLength);
  if (perix_.find(method) == nullptr) return unknownMethod(method);
  if (count < 1 || count > kMost) {
    return Answer::error("count must be from 1 to " + std::to_string(kMost));
  }
  awaited_.push_back({method, static_cast<std::size_t>(count), call.respond});
  answerAwaitedCalls();
  return Answer::later();
}

void DevService::answerAwaitedCalls() {
  std::erase_if(awaited_, [this](const AwaitedCalls& awaited) REQUIRES(mutex_) {
    const Json calls = calls_.answered(awaited.method);
    if (calls.size() < awaited.count) return false;
    awaited.respond(document(calls));
    return true;
  });
}

}  // namespace zq::devservice
