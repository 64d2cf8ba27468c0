#include "service/bus/dev_service.h"

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <utility>

#include "service/bus/methods.h"
#include "service/model/wire_records.h"

namespace zq::devservice {
namespace {

constexpr const ServiceMethod& kEvent = *ServiceEventOf("perixevent");
constexpr const ServiceMethod& kBroadcast = *ServiceEventOf("mountedEvent");
// Arguments of an answer that the list of calls shows.
constexpr std::size_t kShownAnswer = 8;

/// The call. Its last release answers it with an error if no other code has answered it.
std::shared_ptr<ZQBusCall> neverUnanswered(std::shared_ptr<ZQBusCall> call) {
  ZQBusCall* answered = call.get();
  return {answered, [call = std::move(call)](ZQBusCall*) { call->fail("the work was given up"); }};
}

}  // namespace

void DevService::LockingTimer::after(std::chrono::milliseconds delay, std::function<void()> task) {
  scheduler_.after(delay, [this, task = std::move(task)] {
    const MutexLock lock(mutex_);
    task();
  });
}

DevService::DevService(Options options)
    : options_(std::move(options)),
      timer_(scheduler_, mutex_),
      world_(*this, timer_, options_.printerBackend),
      perix_(perixMethods(world_)),
      control_(controlMethods()) {
  world_.load(options_.scenario);
}

DevService::~DevService() {
  std::unique_ptr<ZQBusService> perix;
  std::unique_ptr<ZQBusService> control;
  {
    const MutexLock lock(mutex_);
    isEnding_ = true;
    perix = std::move(perixService_);
    control = std::move(controlService_);
  }
  ending_.notifyAll();
  // Both wait for their handlers, and a handler may wait for the lock.
  control.reset();
  perix.reset();
  scheduler_.stop();
}

bool DevService::start(std::string& error) {
  std::unique_ptr<ZQBusService> perix;
  std::unique_ptr<ZQBusService> control;
  // Calls that arrive before both names are owned wait for the lock.
  const MutexLock lock(mutex_);
  perix = ZQBusService::claim(
      "perix", {perix_.description(), {describe(kEvent)}},
      [this](const std::shared_ptr<ZQBusCall>& call) { onCall(call); }, error);
  if (perix == nullptr) return false;
  control = ZQBusService::claim(
      "perixcontrol", {control_.description(), {}},
      [this](const std::shared_ptr<ZQBusCall>& call) { onControlCall(call); }, error);
  if (control == nullptr) return false;
  perix->setLostCallback([this] { options_.onEnd(Ending::BusLost); });
  perixService_ = std::move(perix);
  controlService_ = std::move(control);
  return true;
}

// --- Events --------------------------------------------------------------------------------------

void DevService::send(const Event& event) {
  sendRaw(Way::Event, event.desktop, static_cast<int32_t>(event.kind), event.payload);
}

void DevService::broadcast(const Event& event) {
  sendRaw(Way::Broadcast, event.desktop, static_cast<int32_t>(event.kind), event.payload);
}

void DevService::sendRaw(Way way, uint32_t desktop, int32_t kind,
                         const std::optional<ZQBusBytes>& payload) {
  if (perixService_ == nullptr) return;
  ZQBusMessage content;
  content.appendInt32(static_cast<int32_t>(desktop));
  content.appendInt32(kind);
  if (payload) content.append(*payload);
  if (way == Way::Event) {
    perixService_->sendEvent(kEvent.name, content);
  } else {
    perixService_->sendBroadcast(kBroadcast.name, content);
  }
}

void DevService::flood(int64_t events) {
  Device device;
  device.name = "flood";
  for (int64_t i = 0; i < events; ++i) {
    device.number = static_cast<uint16_t>(i);
    device.sourceId = static_cast<uint64_t>(i);
    send({0, EventKind::DeviceState, deviceRecord(device)});
  }
}

// --- Calls of "perix" ----------------------------------------------------------------------------

void DevService::onCall(const std::shared_ptr<ZQBusCall>& call) {
  const MutexLock lock(mutex_);
  const NotedCall noted = note(call);
  const FaultPlan plan = faults_.take(call->message().name());
  if (plan.crash) ::kill(::getpid(), SIGKILL);
  // This is the thread that reads the bus.
  const auto resumed = std::chrono::steady_clock::now() + plan.stopReading;
  while (!isEnding_ && ending_.waitUntil(mutex_, resumed)) {
  }
  if (plan.drop) return;
  if (plan.delay.count() > 0) {
    timer_.after(plan.delay, [this, noted, plan]() REQUIRES(mutex_) { serve(noted, plan); });
  } else {
    serve(noted, plan);
  }
}

DevService::NotedCall DevService::note(const std::shared_ptr<ZQBusCall>& call) {
  const Method* method = perix_.find(call->message().name());
  const bool shown = method != nullptr && !method->form.secret;
  return {call, calls_.note(call->message(), call->sender(),
                            shown ? Disclosure::Everything : Disclosure::SizesOnly)};
}

void DevService::noteAnswer(const NotedCall& noted, const Answer& answer) {
  if (answer.isError()) {
    calls_.noteAnswer(noted.number, "error", answer.errorText());
  } else {
    calls_.noteAnswer(noted.number, "answer",
                      argumentsAsJson(answer.arguments(), Disclosure::Everything, kShownAnswer));
  }
  answerAwaitedCalls();
  const Json* const whole = calls_.find(noted.number);
  if (options_.verbose && whole != nullptr) std::fprintf(stderr, "%s\n", asText(*whole).c_str());
}

void DevService::serve(const NotedCall& noted, const FaultPlan& plan) {
  const auto& call = noted.call;
  const std::string& method = call->message().name();
  if (plan.lastBytes) return call->breakConnection(*plan.lastBytes);
  if (plan.error) {
    noteAnswer(noted, Answer::error("injected fault"));
    return call->fail("injected fault");
  }
  if (perix_.find(method) == nullptr) {
    noteAnswer(noted, Answer::error("no method " + method));
    return call->failUnknownMethod();
  }
  const NotedCall answered{neverUnanswered(call), noted.number};
  perix_.handle(call->message(), [this, answered, plan](const Answer& answer)
                                     REQUIRES(mutex_) { respond(answered, plan, answer); });
}

void DevService::respond(const NotedCall& noted, const FaultPlan& plan, const Answer& answer) {
  flood(plan.flood);
  const Answer sent = plan.distort(answer);
  noteAnswer(noted, sent);
  if (plan.late.count() > 0) {
    timer_.after(plan.late, [call = noted.call, sent] { sent.sendTo(*call); });
  } else {
    sent.sendTo(*noted.call);
  }
}

}  // namespace zq::devservice
