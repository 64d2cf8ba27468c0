// The operations over a real bus, against a service that writes down what it is asked.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/proxy/wire_table.h"
#include "tests/support/recording_service.h"

namespace zq {
namespace {

/// A recording service, and the proxy connected to it.
class Session : public testing::Test {
 protected:
  ~Session() override { proxy.ReleaseService(); }
  void endService() {
    proxy.ReleaseService();
    owned.reset();
  }

  std::optional<RecordingService> owned{std::in_place};
  RecordingService& service = *owned;
  PerixProxy& proxy = *PerixProxy::getInstance();
};
using SearchAddress = Session;
using DeviceRecord = Session;

class Operation : public Session, public testing::WithParamInterface<NamedWireRow> {
 protected:
  const WireRow& row = GetParam().row;
};

/// What is reported when the service answers everything with an error.
PerixFailure failureOf(const WireRow& row) {
  if (row.timeoutMs > 0) return PerixFailure::Refused;
  return row.sends.empty() && row.result == "-1" ? PerixFailure::NotAsked : PerixFailure::None;
}

TEST_P(Operation, SendsCallAndReturnsAnswer) {
  service.answerWith(row.reply);
  EXPECT_EQ(row.run(proxy), row.result);
  proxy.OnFocusChanged("", 0, 0);  // behind what was sent without waiting
  const auto received = service.takeCalls();
  ASSERT_EQ(received.size(), row.sends.empty() ? 1U : 2U);
  if (!row.sends.empty()) {
    EXPECT_EQ(received[0], row.sends);
  }
}

TEST_P(Operation, ReturnsFailureValue) {
  service.answerWith([](const std::shared_ptr<ZQBusCall>& call) { call->fail("no luck"); });
  const bool waits = row.timeoutMs > 0;
  EXPECT_EQ(row.run(proxy), waits ? row.failure : row.result);
  const PerixFailureReport report = PerixLastFailure();
  EXPECT_EQ(report.failure, failureOf(row));
  EXPECT_EQ(report.text == "no luck", waits);
  EXPECT_EQ(report.text.empty(), report.failure == PerixFailure::None);
  if (report.failure == PerixFailure::NotAsked) {
    EXPECT_EQ(GetParam().name.find(report.method.substr(1)), 1U) << report.method;
  }
  EXPECT_EQ(logText().find("no luck") != std::string::npos, waits);
  endService();
  EXPECT_EQ(row.run(proxy), row.failure);
  if (row.timeoutMs == 0) return;
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::NoService);
}

INSTANTIATE_TEST_SUITE_P(Wire, Operation, testing::ValuesIn(wireTable()),
                         [](const auto& row) { return row.param.name; });

TEST_F(SearchAddress, IsCheckedBeforeCall) {
  std::list<_SharePrinterDevice> found;
  service.answerWith(message(int32_t{0}, int32_t{0}));
  for (const char* valid : {"10.0.0.5", "0.0.0.0", "255.255.255.255", "10.0.0.5:0",
                            "10.0.0.5:65535", "10.0.0.5:", "10.0.0.5:9100x"}) {
    EXPECT_EQ(proxy.SearchSharePrinterDevice(valid, found), 0) << valid;
  }
  service.takeCalls();
  for (const char* invalid :
       {"", "printer", "10.0.0", "10.0.0.5.1", "10.0.0.256", "10.0.0.05", "10.0.0.-1", "10.0.0.5 ",
        " 10.0.0.5", "+10.0.0.5", "10..0.5", "10.0.0.5:65536", "10.0.0.5:-1", "::1", ":9100"}) {
    EXPECT_EQ(proxy.SearchSharePrinterDevice(invalid, found), 1) << invalid;
    EXPECT_EQ(PerixLastFailure().failure, PerixFailure::NotAsked);
  }
  EXPECT_TRUE(service.takeCalls().empty());
}

TEST_F(DeviceRecord, IsNamedAfterItsDesktop) {
  const std::string longId = std::string(297, 'v') + "-42";
  ASSERT_EQ(proxy.GetVmIdInt(longId), 42U);
  CommonDevice device{};
  device.status = kDeviceConnected;
  device.vmId = 42;
  std::memset(device.vmIdText, '#', sizeof device.vmIdText);
  const std::string whole(reinterpret_cast<const char*>(&device), sizeof device);
  const std::size_t text = offsetof(CommonDevice, vmIdText);
  for (const std::size_t length : {std::size_t{1}, std::size_t{9}, std::size_t{10}, std::size_t{24},
                                   text, text + 1, text + 10, sizeof device}) {
    service.answerWith(message(int32_t{1}, bytes(whole.substr(0, length))));
    const auto named = proxy.GetDeviceList("");
    ASSERT_EQ(named.size(), 1U) << length;
    std::string want = whole.substr(0, length);
    if (length > text)
      want.replace(text, std::min(longId.size(), length - text), longId, 0, length - text);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(named.front()), length), want) << length;
    const auto asReceived = proxy.GetDeviceStatus(1);
    ASSERT_EQ(asReceived.size(), 1U);
    EXPECT_EQ(std::memcmp(asReceived.front(), whole.data(), length), 0);
    EXPECT_EQ(proxy.FreeDeviceList(named) + proxy.FreeDeviceList(asReceived), 0);
  }
}

}  // namespace
}  // namespace zq
