#include "service/bus/faults.h"

#include <algorithm>
#include <array>
#include <random>
#include <string_view>
#include <utility>

namespace zq::devservice {
namespace {

constexpr int64_t kLongestMs = 3'600'000;
constexpr int64_t kLargestFlood = 300'000;  // the backlog of the bus library is somewhat longer
constexpr int64_t kLongestRecord = 1 << 20;
constexpr int64_t kLongestGarbage = 1 << 16;

// The head of an answer with one block of bytes for its argument, and the block's length.
constexpr std::string_view kAnswerHead(
    "l\2\1\1\100\0\0\0\1\0\0\0\20\0\0\0"       // sizes of body and fields; serial number
    "\5\1u\0\1\0\0\0\10\1g\0\2ay\0\74\0\0\0",  // answered number; types; block's length
    36);
constexpr int64_t kLongestCutAnswer = 95;  // one byte short of the whole

std::string garbage(int64_t length) {
  std::minstd_rand random;
  std::string bytes(static_cast<std::size_t>(length), '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

std::string cutAnswer(int64_t length) {
  std::string bytes(kAnswerHead);
  bytes.resize(static_cast<std::size_t>(length));
  return bytes;
}

struct KindRow {
  FaultKind kind;
  const char* name;
  int64_t largest;
  void (*plan)(FaultPlan&, int64_t value);
};

constexpr std::array kKinds = {
    KindRow{FaultKind::Delay, "delay", kLongestMs,
            [](FaultPlan& plan, int64_t ms) { plan.delay += std::chrono::milliseconds(ms); }},
    KindRow{FaultKind::Late, "late", kLongestMs,
            [](FaultPlan& plan, int64_t ms) { plan.late += std::chrono::milliseconds(ms); }},
    KindRow{FaultKind::Error, "error", kLongestMs,
            [](FaultPlan& plan, int64_t) { plan.error = true; }},
    KindRow{FaultKind::WrongType, "wrong-type", kLongestMs,
            [](FaultPlan& plan, int64_t) { plan.wrongType = true; }},
    KindRow{FaultKind::ShortRecord, "short-record", kLongestRecord,
            [](FaultPlan& plan, int64_t n) { plan.recordLength = static_cast<uint32_t>(n); }},
    KindRow{FaultKind::Drop, "drop", kLongestMs,
            [](FaultPlan& plan, int64_t) { plan.drop = true; }},
    KindRow{FaultKind::Flood, "flood", kLargestFlood,
            [](FaultPlan& plan, int64_t n) { plan.flood += n; }},
    KindRow{FaultKind::StopReading, "stop-reading", kLongestMs,
            [](FaultPlan& plan, int64_t ms) { plan.stopReading += std::chrono::milliseconds(ms); }},
    KindRow{FaultKind::Garbage, "garbage", kLongestGarbage,
            [](FaultPlan& plan, int64_t n) { plan.lastBytes = garbage(n); }},
    KindRow{FaultKind::Truncate, "truncate", kLongestCutAnswer,
            [](FaultPlan& plan, int64_t n) { plan.lastBytes = cutAnswer(n); }},
    KindRow{FaultKind::Crash, "crash", kLongestMs,
            [](FaultPlan& plan, int64_t) { plan.crash = true; }},
};

const KindRow& rowOf(FaultKind kind) {
  return kKinds.at(static_cast<std::size_t>(kind));
}

std::string kindNames() {
  std::string names;
  for (const KindRow& row : kKinds) names += (names.empty() ? "" : ", ") + std::string(row.name);
  return names;
}

ZQBusArgument withAnotherType(const ZQBusArgument& argument) {
  if (std::holds_alternative<std::string>(argument)) return int32_t{0};
  if (std::holds_alternative<ZQBusBytes>(argument)) return int64_t{-1};
  return std::string("not a number");
}

ZQBusArgument shortened(const ZQBusArgument& argument, uint32_t length) {
  const auto* bytes = std::get_if<ZQBusBytes>(&argument);
  if (bytes == nullptr || bytes->size <= length) return argument;
  return ZQBusBytes::copyOf(bytes->data.get(), length);
}

}  // namespace

std::string Faults::set(const std::string& method, const std::string& kind, int64_t value,
                        int32_t count) {
  const auto* row = std::find_if(kKinds.begin(), kKinds.end(),
                                 [&](const KindRow& candidate) { return candidate.name == kind; });
  if (row == kKinds.end()) return "no fault is called " + kind + "; there are: " + kindNames();
  if (value < 0 || value > row->largest) {
    return kind + " takes a value from 0 to " + std::to_string(row->largest);
  }
  if (count < 0) return "the count is 0, until cleared, or more";
  std::erase_if(faults_, [&](const Fault& fault) {
    return fault.method == method && fault.kind == row->kind;
  });
  faults_.push_back({method, row->kind, value, count});
  return {};
}

Json Faults::list() const {
  auto list = Json::array();
  for (const Fault& fault : faults_) {
    list.push_back({{"method", fault.method},
                    {"kind", rowOf(fault.kind).name},
                    {"value", fault.value},
                    {"remaining", fault.remaining}});
  }
  return list;
}

FaultPlan Faults::take(const std::string& method) {
  FaultPlan plan;
  std::erase_if(faults_, [&](Fault& fault) {
    if (fault.method != "*" && fault.method != method) return false;
    rowOf(fault.kind).plan(plan, fault.value);
    return fault.remaining != 0 && --fault.remaining == 0;
  });
  return plan;
}

Answer FaultPlan::distort(const Answer& answer) const {
  if (answer.isError() || (!wrongType && !recordLength)) return answer;
  ZQBusMessage distorted;
  for (const ZQBusArgument& argument : answer.arguments().arguments()) {
    const ZQBusArgument cut = recordLength ? shortened(argument, *recordLength) : argument;
    distorted.append(wrongType ? withAnotherType(cut) : cut);
  }
  return Answer::of(std::move(distorted));
}

}  // namespace zq::devservice
