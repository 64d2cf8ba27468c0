// The time-out of each operation and its name in the log, over a bus that lets nothing wait.
#include <gtest/gtest.h>

#include <set>

#include "tests/proxy/scripted_bus.h"
#include "tests/proxy/wire_table.h"

namespace zq {
namespace {

class Operation : public testing::TestWithParam<NamedWireRow> {};

/// The functions that wrote into the log, but for those that others may call.
std::set<std::string> writers() {
  std::set<std::string> writers;
  for (const LogLine& line : takeLog()) writers.insert(line.function);
  for (const char* called : {"GetVmIdInt", "getInstance"}) writers.erase(called);
  return writers;
}

TEST_P(Operation, HasItsTimeOutAndItsNameInLog) {
  const WireRow& row = GetParam().row;
  // A row is named after its operation, one after the operation that it calls.
  std::string name = GetParam().name;
  if (name == "GetLocalDeviceList") name = "GetDeviceList";
  PerixProxy& proxy = *PerixProxy::getInstance();
  std::string result;
  const auto namesInLog = [&] {
    takeLog();
    result = row.run(proxy);
    auto names = writers();
    std::erase_if(names, [&](const std::string& writer) { return name.starts_with(writer); });
    return names;
  };
  for (const ZQBusMessage& answer :
       {row.reply, ZQBusMessage::failed(ZQBusFailure::TimedOut, "too late")}) {
    script().answer = [&](const ZQBusMessage&) { return answer; };
    EXPECT_EQ(namesInLog(), std::set<std::string>());
  }
  const BusHistory before = history();
  ASSERT_EQ(before.calls.empty(), row.timeoutMs == 0);
  if (!before.calls.empty()) {
    EXPECT_EQ(before.calls.back().timeoutMs, row.timeoutMs);
  }
  if (row.timeoutMs > 0) {
    EXPECT_EQ(result, row.failure);
    EXPECT_EQ(PerixLastFailure().failure, PerixFailure::TimedOut);
  }
  script().isRegistered = [] { return false; };
  proxy.ReleaseService();
  auto names = namesInLog();
  names.erase("Init");
  EXPECT_EQ(names, std::set<std::string>());
  if (row.timeoutMs != 0) {
    EXPECT_EQ(history().attempts, before.attempts + 1)
        << "a service that is away costs one attempt";
  }
}

INSTANTIATE_TEST_SUITE_P(Wire, Operation, testing::ValuesIn(wireTable()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace zq
