#include "tools/perixctl/trace_lines.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <string_view>

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

// The methods that answer with one number that is not a result.
constexpr std::array<std::string_view, 5> kNumberMethods = {
    "getVmListSize", "getAutoConnect", "getDevicePropertyWithVidPid",
    "getLocalDevicePropertyWithVidPid", "CheckCameraAuthStat"};

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

std::string argumentsIn(const ZQBusMessage& message) {
  std::string text;
  for (std::size_t i = 0; i < std::min(message.argCount(), kShownArguments); ++i) {
    if (i > 0) text += ", ";
    text += message.isSecret(i) ? "secret" : std::visit(InWords(), message.arguments()[i]);
  }
  if (message.argCount() > kShownArguments) text += ", ...";
  return text;
}

/// Whether the reply is the service's result, and not another number.
bool isResult(const ZQBusTraceEntry& entry) {
  const ZQBusMessage& reply = entry.reply;
  return reply.type() == 2 && reply.argCount() == 1 &&
         std::holds_alternative<int32_t>(reply.arguments()[0]) &&
         std::find(kNumberMethods.begin(), kNumberMethods.end(), entry.content.name()) ==
             kNumberMethods.end();
}

double milliseconds(std::chrono::nanoseconds time) {
  return static_cast<double>(time.count()) / 1e6;
}

std::string replyIn(const ZQBusTraceEntry& entry) {
  std::string text;
  if (entry.reply.type() != 2) return "failed: " + escaped(entry.reply.readString(text, 0));
  text = argumentsIn(entry.reply);
  if (!isResult(entry) || !isFailure(entry)) return text;
  const char* reason = TextOf(static_cast<ServiceResult>(entry.reply.readInt32(0)));
  return reason != nullptr ? text + ' ' + reason : text;
}

std::string connectionIn(const ZQBusTraceEntry& entry) {
  const std::string end = entry.service.empty() ? "the bus" : escaped(entry.service);
  if (!entry.text.empty()) return "no connection to " + end + ": " + escaped(entry.text);
  return "connected to " + end + (entry.peer.empty() ? "" : " (" + escaped(entry.peer) + ')');
}

const char* textOf(ZQBusWay way) {
  switch (way) {
    case ZQBusWay::Broker:
      return "broker";
    case ZQBusWay::Direct:
      return "direct";
    case ZQBusWay::InProcess:
      return "in process";
  }
  return "?";
}

std::string contentIn(const ZQBusTraceEntry& entry) {
  const std::string content =
      escaped(entry.content.name()) + '(' + argumentsIn(entry.content) + ')';
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

struct MethodCalls {
  int failures = 0;
  std::vector<double> durations;
};

double percentile(const std::vector<double>& sorted, double share) {
  return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1) + 0.5)];
}

}  // namespace

std::string traceLine(const ZQBusTraceEntry& entry) {
  return contentIn(entry) + (entry.way ? std::string(" ") + textOf(*entry.way) : "");
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
