#include "service/replay/recording.h"

#include <algorithm>
#include <map>
#include <utility>

namespace zq::devservice {
namespace {

using Kind = ZQBusTraceEntry::Kind;

constexpr char kService[] = "perix";

/// Whether a call got as far as the service; the client ended the others by itself.
bool reachedTheService(const ZQBusMessage& reply) {
  switch (reply.failure()) {
    case ZQBusFailure::None:
    case ZQBusFailure::Service:
    case ZQBusFailure::TimedOut:
    case ZQBusFailure::PeerGone:
    case ZQBusFailure::Unreadable:
      return true;
    case ZQBusFailure::BusGone:
    case ZQBusFailure::TooLarge:
    case ZQBusFailure::Unusable:
      return false;
  }
  return false;
}

bool isOfTheService(const ZQBusTraceEntry& entry) {
  if (entry.kind == Kind::Connection) return false;
  return entry.kind == Kind::Broadcast || entry.service == kService;
}

/// The side whose entries are played. A file may hold both ends of a call, and an event once for
/// each client that heard it.
class Side {
 public:
  explicit Side(const std::vector<ZQBusTraceEntry>& trace) {
    for (const ZQBusTraceEntry& entry : trace) {
      if (isOfTheService(entry) && entry.kind == Kind::Call && entry.isSent) ofClients_ = true;
    }
    std::map<int, std::size_t> heard;
    std::size_t most = 0;
    for (const ZQBusTraceEntry& entry : trace) {
      if (entry.kind == Kind::Call || !isOfTheService(entry) || !has(entry)) continue;
      if (++heard[entry.process] <= most) continue;
      most = heard[entry.process];
      listener_ = entry.process;
    }
  }

  /// What a client calls, the service is told; what the service sends, a client hears.
  bool plays(const ZQBusTraceEntry& entry) const {
    if (!isOfTheService(entry) || !has(entry)) return false;
    return entry.kind == Kind::Call || listener_ == 0 || entry.process == listener_;
  }

 private:
  bool has(const ZQBusTraceEntry& entry) const {
    return entry.isSent == ((entry.kind == Kind::Call) == ofClients_);
  }

  bool ofClients_ = false;
  int listener_ = 0;  // the process that heard most; 0 when none heard anything
};

bool isSame(const ZQBusBytes& recorded, const ZQBusBytes& asked) {
  return recorded.view() == asked.view();
}
template <typename Value>
bool isSame(const Value& recorded, const Value& asked) {
  return recorded == asked;
}

bool isSameArgument(const ZQBusArgument& recorded, const ZQBusArgument& asked) {
  return std::visit(
      [&asked](const auto& value) {
        const auto* other = std::get_if<std::decay_t<decltype(value)>>(&asked);
        return other != nullptr && isSame(value, *other);
      },
      recorded);
}

std::size_t equalArguments(const ZQBusMessage& recorded, const ZQBusMessage& asked) {
  std::size_t equal = 0;
  for (std::size_t i = 0; i < std::min(recorded.argCount(), asked.argCount()); ++i) {
    if (recorded.isSecret(i) || isSameArgument(recorded.arguments()[i], asked.arguments()[i]))
      ++equal;
  }
  return equal;
}

bool isSameCall(const ZQBusMessage& recorded, const ZQBusMessage& asked) {
  return recorded.name() == asked.name() && recorded.argCount() == asked.argCount() &&
         equalArguments(recorded, asked) == recorded.argCount();
}

}  // namespace

Recording::Recording(const std::vector<ZQBusTraceEntry>& trace) {
  const Side side(trace);
  std::vector<Happening> early;
  std::chrono::nanoseconds begin{0};
  for (const ZQBusTraceEntry& entry : trace) {
    if (!side.plays(entry)) continue;
    if (entry.kind == Kind::Call) {
      if (!reachedTheService(entry.reply)) continue;
      begin = entry.monotonic;
      steps_.push_back({entry.content, entry.reply, entry.duration, std::exchange(early, {})});
    } else if (steps_.empty()) {
      early.push_back({entry.kind, {}, entry.content});
    } else {
      steps_.back().happenings.push_back({entry.kind, entry.monotonic - begin, entry.content});
    }
  }
}

Recording::Step* Recording::next(const ZQBusMessage& call) {
  Step* found = nullptr;
  for (Step& step : steps_) {
    if (!isSameCall(step.call, call)) continue;
    found = &step;
    if (step.played == 0) break;
  }
  if (found != nullptr) ++found->played;
  return found;
}

std::string Recording::nearest(const ZQBusMessage& call) const {
  const Step* best = nullptr;
  for (const Step& step : steps_) {
    if (step.call.name() != call.name()) continue;
    if (best == nullptr || equalArguments(step.call, call) > equalArguments(best->call, call)) {
      best = &step;
    }
  }
  if (best == nullptr) return "no call of " + call.name() + " was recorded";
  return "the nearest recorded one is " + best->call.toDebugString();
}

std::vector<std::string> Recording::report() const {
  std::vector<std::string> lines;
  for (const Step& step : steps_) {
    if (step.played == 0) lines.push_back("not played: " + step.call.toDebugString());
    if (step.played > 1) {
      lines.push_back("played " + std::to_string(step.played) +
                      " times: " + step.call.toDebugString());
    }
  }
  return lines;
}

}  // namespace zq::devservice
