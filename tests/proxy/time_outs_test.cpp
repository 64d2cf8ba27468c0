// The time-out of each operation and its name in the log, over a bus that lets nothing wait.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/proxy/scripted_bus.h"
#include "tests/proxy/wire_table.h"

namespace zq {
namespace {

class Operation : public testing::TestWithParam<NamedWireRow> {};

TEST_P(Operation, HasItsTimeOut) {
  script().answer = [](const ZQBusMessage&) {
    return ZQBusMessage::failed(ZQBusFailure::TimedOut, "too late");
  };
  const WireRow& row = GetParam().row;
  PerixProxy& proxy = *PerixProxy::getInstance();
  const std::string result = row.run(proxy);
  const auto calls = history().calls;
  ASSERT_EQ(calls.empty(), row.timeoutMs == 0);
  if (calls.empty()) return;
  EXPECT_EQ(calls.back().timeoutMs, row.timeoutMs);
  if (row.timeoutMs == kNoWait) return;
  EXPECT_EQ(result, row.failure);
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::TimedOut);
}

/// The functions that wrote into the log, but for those that others may call.
std::vector<std::string> writersSince() {
  std::vector<std::string> writers;
  for (const LogLine& line : takeLog()) {
    const bool called = line.function == "GetVmIdInt" || line.function == "getInstance";
    if (!called) writers.push_back(line.function);
  }
  return writers;
}

TEST_P(Operation, IsNamedInLog) {
  // A row is named after its operation, one after that which it calls.
  std::string name = GetParam().name;
  if (name == "GetLocalDeviceList") name = "GetDeviceList";
  PerixProxy& proxy = *PerixProxy::getInstance();
  const auto isOwn = [&](const std::string& writer) { return name.starts_with(writer); };
  for (const bool answered : {true, false}) {
    script().answer = [&](const ZQBusMessage&) {
      return answered ? GetParam().row.reply : ZQBusMessage::failed(ZQBusFailure::Service, "no");
    };
    takeLog();
    GetParam().row.run(proxy);
    const auto writers = writersSince();
    EXPECT_TRUE(std::all_of(writers.begin(), writers.end(), isOwn))
        << testing::PrintToString(writers);
  }
  script().isRegistered = [] { return false; };
  proxy.ReleaseService();
  takeLog();
  const int attempts = history().attempts;
  GetParam().row.run(proxy);
  // A service that is away costs an operation one attempt.
  if (GetParam().row.timeoutMs != 0) {
    EXPECT_EQ(history().attempts, attempts + 1);
  }
  auto writers = writersSince();
  std::erase(writers, "Init");
  EXPECT_TRUE(std::all_of(writers.begin(), writers.end(), isOwn))
      << testing::PrintToString(writers);
}

INSTANTIATE_TEST_SUITE_P(Wire, Operation, testing::ValuesIn(wireTable()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace zq
