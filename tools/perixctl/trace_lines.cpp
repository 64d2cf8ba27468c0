#include "tools/perixctl/trace_lines.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <string_view>

#include "perix/events.h"
#include "perix/service_values.h"
#include "platform/text/escape.h"
#include "platform/text/hex.h"
#include "platform/text/utf8.h"

namespace zq::ctl {
namespace {

using Kind = ZQBusTraceEntry::Kind;

constexpr std::size_t kShownArguments = 8;
constexpr std::size_t kShownText = 60;
constexpr std::size_t kShownBytes = 8;

struct InWords {
  std::string operator()(std::monostate) const { return "?"; }
  std::string operator()(const std::string& text) const {
    const std::string_view shown = cutText(text, kShownText);
    return '"' + escaped(shown) + (shown.size() < text.size() ? "\"..." : "\"");
  }
  std::string operator()(const ZQBusBytes& bytes) const {
    if (bytes.size <= kShownBytes) return inHex(bytes.view());
    return inHex(bytes.view().substr(0, kShownBytes)) + "...[" + std::to_string(bytes.size) + ']';
  }
  template <typename Number>
  std::string operator()(Number number) const {
    return std::to_string(number);
  }
};

std::string shown(const ZQBusMessage& message, std::size_t index) {
  return message.isSecret(index) ? "secret" : std::visit(InWords(), message.arguments()[index]);
}

std::string listOf(const ZQBusMessage& message,
                   const std::function<std::string(std::size_t)>& argument) {
  std::string text;
  for (std::size_t i = 0; i < std::min(message.argCount(), kShownArguments); ++i) {
    text += (i > 0 ? ", " : "") + argument(i);
  }
  return message.argCount() > kShownArguments ? text + ", ..." : text;
}

/// Whether the reply begins with a result of the service.
bool isResult(const ZQBusTraceEntry& entry) {
  const ServiceMethod* const method = ServiceMethodOf(entry.content.name());
  const ZQBusMessage& reply = entry.reply;
  return method != nullptr && std::string_view(method->out).starts_with("result:") &&
         reply.type() == 2 && reply.argCount() > 0 &&
         std::holds_alternative<int32_t>(reply.arguments()[0]);
}

double milliseconds(std::chrono::nanoseconds time) {
  return static_cast<double>(time.count()) / 1e6;
}

std::string replyIn(const ZQBusTraceEntry& entry) {
  std::string text;
  if (entry.reply.type() != 2) return "failed: " + escaped(entry.reply.readString(text, 0));
  text = listOf(entry.reply, [&](std::size_t i) { return shown(entry.reply, i); });
  if (!isResult(entry) || !isFailure(entry)) return text;
  const char* reason = TextOf(static_cast<ServiceResult>(entry.reply.readInt32(0)));
  return reason != nullptr ? text + ' ' + reason : text;
}

std::string connectionIn(const ZQBusTraceEntry& entry) {
  const std::string end = entry.service.empty() ? "the bus" : escaped(entry.service);
  if (!entry.text.empty()) return "no connection to " + end + ": " + escaped(entry.text);
  return "connected to " + end + (entry.peer.empty() ? "" : " (" + escaped(entry.peer) + ')');
}

struct MethodCalls {
  int failures = 0;
  std::vector<double> durations;
};

double percentile(const std::vector<double>& sorted, double share) {
  return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1) + 0.5)];
}

}  // namespace

std::string TraceLines::line(const ZQBusTraceEntry& entry) {
  learnDesktops(entry);
  return contentIn(entry) + (entry.way ? std::string(" ") + TextOf(*entry.way) : "");
}

/// An id holds for the process that gave it.
void TraceLines::learnDesktops(const ZQBusTraceEntry& entry) {
  const ZQBusMessage& reply = entry.reply;
  if (entry.kind == Kind::Death) desktops_.clear();
  if (entry.kind != Kind::Call || reply.type() != 2) return;
  std::string name;
  if (entry.content.name() == "getVmListSize") {
    desktops_[reply.readInt32(0)] = entry.content.readString(name, 0);
  } else if (entry.content.name() == "getVmList") {
    for (std::size_t i = 1; i + 1 < reply.argCount(); i += 2) {
      desktops_[reply.readInt32(i + 1)] = reply.readString(name, i);
    }
  }
  desktops_.erase(0);
}

std::string TraceLines::contentIn(const ZQBusTraceEntry& entry) const {
  const ZQBusMessage& message = entry.content;
  const bool isCall = entry.kind == Kind::Call;
  const ServiceMethod* const form =
      isCall ? ServiceMethodOf(message.name()) : ServiceEventOf(message.name());
  const std::string content = escaped(message.name()) + '(' + argumentsIn(message, form) + ')';
  std::array<char, 32> duration{};
  switch (entry.kind) {
    case Kind::Call:
      std::snprintf(duration.data(), duration.size(), "   %.2f ms", milliseconds(entry.duration));
      return content + " = " + replyIn(entry) + duration.data();
    case Kind::Event:
      return (entry.isSent ? "sent event " : "event ") + content;
    case Kind::Broadcast:
      return (entry.isSent ? "sent broadcast " : "broadcast ") + content;
    case Kind::Connection:
      return connectionIn(entry);
    case Kind::Death:
      return "the service died: " + escaped(entry.service);
  }
  return content;
}

std::string TraceLines::argumentsIn(const ZQBusMessage& message, const ServiceMethod* form) const {
  return listOf(message, [&](std::size_t i) {
    const std::string_view argument = form != nullptr ? ArgumentOf(form->in, i) : "";
    if (argument.empty()) return shown(message, i);
    const std::string_view name = argument.substr(0, argument.find(':'));
    std::string text = std::string(name) + '=' + shown(message, i);
    const auto desktop = desktops_.find(message.readInt32(i));
    if (name == "desktop" && desktop != desktops_.end()) text += ' ' + InWords()(desktop->second);
    const char* const kind = TextOf(static_cast<EventKind>(message.readInt32(i)));
    if (name == "kind" && kind != nullptr) text += std::string(" ") + kind;
    return text;
  });
}

bool isFailure(const ZQBusTraceEntry& entry) {
  if (entry.kind == Kind::Connection) return !entry.text.empty();
  if (entry.kind != Kind::Call) return entry.kind == Kind::Death;
  return entry.reply.type() != 2 || (isResult(entry) && entry.reply.readInt32(0) != 0);
}

Json summaryOf(const std::vector<ZQBusTraceEntry>& trace) {
  std::map<std::string, MethodCalls> methods;
  for (const ZQBusTraceEntry& entry : trace) {
    if (entry.kind != Kind::Call) continue;
    MethodCalls& calls = methods[entry.content.name()];
    calls.failures += isFailure(entry) ? 1 : 0;
    calls.durations.push_back(milliseconds(entry.duration));
  }
  Json rows = Json::array();
  for (auto& [method, calls] : methods) {
    std::sort(calls.durations.begin(), calls.durations.end());
    rows.push_back({{"method", method},
                    {"calls", calls.durations.size()},
                    {"failures", calls.failures},
                    {"medianMs", percentile(calls.durations, 0.5)},
                    {"p99Ms", percentile(calls.durations, 0.99)},
                    {"longestMs", calls.durations.back()}});
  }
  return rows;
}

}  // namespace zq::ctl
