#include "service/replay/replay_service.h"

#include <utility>

namespace zq::devservice {
namespace {

using Kind = ZQBusTraceEntry::Kind;

constexpr std::size_t kMostUnknown = 1000;
// What a trace, which may be of any origin, makes a client wait at most.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24);

}  // namespace

ReplayService::ReplayService(Recording recording, double speed)
    : speed_(speed), recording_(std::move(recording)) {}

ReplayService::~ReplayService() {
  scheduler_.stop();
  std::shared_ptr<ZQBusService> service;
  const MutexLock lock(mutex_);
  service.swap(service_);
}

bool ReplayService::start(std::string& error) {
  std::shared_ptr<ZQBusService> service = ZQBusService::claim(
      "perix", {}, [this](const std::shared_ptr<ZQBusCall>& call) { onCall(call); }, error);
  const MutexLock lock(mutex_);
  service_ = std::move(service);
  return service_ != nullptr;
}

std::vector<std::string> ReplayService::report() {
  const MutexLock lock(mutex_);
  std::vector<std::string> lines = recording_.report();
  lines.insert(lines.end(), unknown_.begin(), unknown_.end());
  return lines;
}

void ReplayService::onCall(const std::shared_ptr<ZQBusCall>& call) {
  const MutexLock lock(mutex_);
  const Recording::Step* const step = recording_.next(call->message());
  if (step == nullptr) {
    const std::string asked = "not recorded: " + call->message().toDebugString();
    if (unknown_.size() < kMostUnknown) unknown_.push_back(asked);
    return call->fail(asked + "; " + recording_.nearest(call->message()));
  }
  bool isAnswered = false;
  const auto answerOnce = [&] {
    if (!std::exchange(isAnswered, true)) {
      scheduler_.after(scaled(step->duration), [this, call, step] { answer(call, *step); });
    }
  };
  for (const Recording::Happening& happening : step->happenings) {
    if (happening.delay >= step->duration) answerOnce();
    scheduler_.after(scaled(happening.delay), [this, &happening] { play(happening); });
  }
  answerOnce();
}

void ReplayService::answer(const std::shared_ptr<ZQBusCall>& call, const Recording::Step& step) {
  std::string text;
  switch (step.reply.failure()) {
    case ZQBusFailure::None:
      return call->reply(step.reply);
    case ZQBusFailure::TimedOut:
    case ZQBusFailure::PeerGone: {
      // Neither an answer nor the error that the last release of a call might send.
      const MutexLock lock(mutex_);
      return unanswered_.push_back(call);
    }
    default:
      return call->fail(step.reply.readString(text, 0));
  }
}

void ReplayService::play(const Recording::Happening& happening) {
  if (happening.kind == Kind::Death) return restart();
  std::shared_ptr<ZQBusService> service;
  {
    const MutexLock lock(mutex_);
    service = service_;
  }
  if (service == nullptr) return;
  const std::string& name = happening.content.name();
  if (happening.kind == Kind::Event) return service->sendEvent(name, happening.content);
  service->sendBroadcast(name, happening.content);
}

/// On the scheduler's thread, which is none of the service's own.
void ReplayService::restart() {
  std::vector<std::shared_ptr<ZQBusCall>> unanswered;
  std::shared_ptr<ZQBusService> service;
  {
    const MutexLock lock(mutex_);
    service.swap(service_);
    unanswered.swap(unanswered_);
  }
  service.reset();
  std::string error;
  if (!start(error)) {
    const MutexLock lock(mutex_);
    unknown_.push_back("cannot come back after the recorded death: " + error);
  }
}

std::chrono::milliseconds ReplayService::scaled(std::chrono::nanoseconds time) const {
  if (speed_ <= 0) return {};
  const double wait = static_cast<double>(time.count()) / 1e6 / speed_;
  if (wait >= static_cast<double>(kLongestWait.count())) return kLongestWait;
  return std::chrono::milliseconds(static_cast<int64_t>(wait));
}

}  // namespace zq::devservice
