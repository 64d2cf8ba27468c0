#include "service/replay/recording.h"

#include <algorithm>
#include <set>
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

bool isSameMessage(const ZQBusMessage& recorded, const ZQBusMessage& other) {
  return recorded.name() == other.name() && recorded.argCount() == other.argCount() &&
         equalArguments(recorded, other) == recorded.argCount();
}

/// Leaves one entry of each thing that the service saw or did. A file may hold both ends of a call,
/// and an event once for each connection that heard it.
class Duplicates {
 public:
  explicit Duplicates(const std::vector<ZQBusTraceEntry>& trace)
      : clients_(std::any_of(trace.begin(), trace.end(), [](const ZQBusTraceEntry& entry) {
          return isOfTheService(entry) && entry.kind == Kind::Call && entry.isSent;
        })) {}

  /// Entries are given in the order of their times.
  bool has(const ZQBusTraceEntry& entry) {
    // The clients' side counts where there is one: a client calls, and hears what is sent.
    const bool isCall = entry.kind == Kind::Call;
    if (entry.isSent != (isCall == clients_)) return true;
    if (isCall) return false;
    const std::pair connection(entry.process, entry.connection);
    std::size_t looked = 0;
    for (auto heard = heard_.rbegin(); heard != heard_.rend() && looked < kMostLooks; ++heard) {
      if (entry.monotonic - heard->entry->monotonic > kLongestDelivery) break;
      ++looked;
      if (heard->entry->kind != entry.kind) continue;
      if (!isSameMessage(heard->entry->content, entry.content)) continue;
      if (heard->by.insert(connection).second) return true;
    }
    heard_.push_back({&entry, {connection}});
    return false;
  }

 private:
  // From the first connection that hears an event to the last.
  static constexpr std::chrono::seconds kLongestDelivery{1};
  static constexpr std::size_t kMostLooks = 1000;
  struct Heard {
    const ZQBusTraceEntry* entry;
    std::set<std::pair<int, int>> by;  // process and connection
  };

  const bool clients_;
  std::vector<Heard> heard_;
};

}  // namespace

Recording::Recording(const std::vector<ZQBusTraceEntry>& trace) {
  Duplicates duplicates(trace);
  std::vector<Happening> early;
  std::chrono::nanoseconds begin{0};
  for (const ZQBusTraceEntry& entry : trace) {
    if (!isOfTheService(entry) || duplicates.has(entry)) continue;
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
    if (!isSameMessage(step.call, call)) continue;
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
