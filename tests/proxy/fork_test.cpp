// Forked children: of a process whose threads hold every lock that there is, operations fail at
// once; of one that has not used the library, they work.

#include "tests/proxy/callbacks.h"
#include "tests/proxy/wire_table.h"
#include "tests/support/blocked_thread.h"
#include "tests/support/bus_world.h"
#include "tests/support/child.h"
#include "tests/support/process.h"

namespace zq {
namespace {

/// Complains of an operation that does not fail as one in a child should.
std::string failureOf(const NamedWireRow& named, PerixProxy& proxy) {
  const WireRow& row = named.row;
  const std::string result = row.run(proxy);
  const PerixFailureReport report = PerixLastFailure();
  if (result != row.failure) return named.name + " = " + result + "; ";
  const bool asks = row.timeoutMs != 0;
  if (!asks || report.failure == PerixFailure::Forked) return {};
  return named.name + " reports " + std::to_string(static_cast<int>(report.failure)) + "; ";
}

/// Callbacks that must not run in a child, where nobody holds the lock under which they do.
template <typename Record>
int endChild(uint16_t, Record*, void*) {
  ::_exit(1);
}

/// The operations that ask nobody, and what each returns in a child.
std::string localFailures(PerixProxy& proxy) {
  int userdata = 0;
  CommonDevice device{};
  _ConfigNewDeviceResult outcome{};
  const std::pair<const char*, int> results[] = {
      {"Init", proxy.Init()},
      {"RegisterCallback", proxy.RegisterCallback("a", ignore<void>, &userdata)},
      {"UnregisterCallback", proxy.UnregisterCallback("a")},
      {"RegisterPrinterCallback", proxy.RegisterPrinterCallback(ignore<PrinterDevice>, &userdata)},
      {"UnregisterPrinterCallback", proxy.UnregisterPrinterCallback()},
      {"RegisterDeviceCallback", proxy.RegisterDeviceCallback(ignore<CommonDevice>, &userdata)},
      {"UnregisterDeviceCallback", proxy.UnregisterDeviceCallback(&userdata)},
      {"UnregisterDeviceCallback()", proxy.UnregisterDeviceCallback()},
      {"RegisterConfig",
       proxy.RegisterConfigNewDevResultCallback(ignore<_ConfigNewDeviceResult>, &userdata)},
      {"UnregisterConfig", proxy.UnregisterConfigNewDevResultCallback(&userdata)},
      {"UnregisterConfig()", proxy.UnregisterConfigNewDevResultCallback()},
      {"RegisterJoystickCallback", proxy.RegisterJoystickCallback(ignore<void>, &userdata)},
      {"UnregisterJoystickCallback", proxy.UnregisterJoystickCallback(&userdata)},
      {"DeviceBaseInfoNotify", proxy.DeviceBaseInfoNotify(4, &device)},
      {"ConfigNewDeviceResultNotify", proxy.ConfigNewDeviceResultNotify(11, &outcome)},
      {"JoystickResultNotify", proxy.JoystickResultNotify(1, nullptr)},
      {"StopDiagnoseNotify", proxy.StopDiagnoseNotify(nullptr)},
  };
  std::string complaints;
  for (const auto& [name, result] : results) {
    if (result != -1) complaints += std::string(name) + " = " + std::to_string(result) + "; ";
  }
  if (proxy.GetVmIdInt("desk-3") != 0) complaints += "GetVmIdInt; ";
  if (PerixLastFailure().text.find("forked") == std::string::npos) complaints += "text; ";
  if (!proxy.GetVmIdString(3).empty()) complaints += "GetVmIdString; ";
  proxy.InitBroadcast();
  proxy.onServiceDeath();
  proxy.ReleaseService();
  proxy.AwaitDeliveries();
  return complaints;
}

TEST(ForkedChild, WorksWhenParentHasNotUsedLibrary) {
  RecordingService service;
  EXPECT_EQ(inChild([] {
              PerixProxy& proxy = *PerixProxy::getInstance();
              const bool answered = proxy.ConnectDevice("desk-3", 1) == 0;
              return std::string(answered ? "" : PerixLastFailure().text);
            }),
            "");
  EXPECT_EQ(PerixProxy::getInstance()->ConnectDevice("desk-3", 1), 0);
}

TEST(ForkedChild, FailsAtOnceWithLocksHeld) {
  if (kSanitized) GTEST_SKIP() << kHangsInSanitizer;
  RecordingService service;
  PerixProxy& proxy = *PerixProxy::getInstance();
  auto* const own = new PerixProxy;
  ASSERT_EQ(own->Init(), 0);
  ASSERT_EQ(own->GetVmIdInt("desk-3"), 3U);
  static ProgressFunction endDiagnosis([] { ::_exit(1); });
  for (PerixProxy* const one : {&proxy, own}) {
    one->RegisterPrinterCallback(endChild<PrinterDevice>, &proxy);
    one->RegisterCmdCallback(endChild<CmdResponse>, &proxy);
    one->RegisterConfigNewDevResultCallback(endChild<_ConfigNewDeviceResult>, &proxy);
    one->RegisterJoystickCallback(endChild<void>, &proxy);
    ASSERT_EQ(one->Diagnose("desk-3", &endDiagnosis), 0);
  }
  Watched<std::vector<std::shared_ptr<ZQBusCall>>> hanging;
  service.answerWith([&](const std::shared_ptr<ZQBusCall>& call) { hanging.append(call); });
  static BlockingPoint point;
  const auto block = [](uint16_t, CommonDevice*, void*) -> int {
    point.stop();
    return 0;
  };
  for (PerixProxy* const one : {&proxy, own}) one->RegisterDeviceCallback(block, &point);
  service.sendEvent(3, 4, devicePayload());
  point.awaitStop();
  const auto event =
      std::make_shared<ZQBusMessage>(message(int32_t{3}, int32_t{4}, bytes(devicePayload())));
  std::vector<std::jthread> threads;
  for (PerixProxy* const one : {&proxy, own}) {
    threads.emplace_back([=] { one->HandleEvent(event); });
    threads.emplace_back([=] { one->SearchAllPrinter(); });
  }
  ASSERT_TRUE(hanging.waitForSize(2)) << "a callback that blocks holds up no call";
  EXPECT_EQ(proxy.CheckDeviceCallback(), &point);

  EXPECT_EQ(inChild([&] {
              std::string complaints;
              for (const int kind : {1, 4, 66, 9, 11}) {
                const auto late =
                    message(int32_t{3}, int32_t{kind}, bytes(std::string(1024, '\0')));
                for (PerixProxy* const one : {&proxy, own}) {
                  one->HandleEvent(std::make_shared<ZQBusMessage>(late));
                }
              }
              for (const NamedWireRow& row : wireTable()) complaints += failureOf(row, proxy);
              for (const NamedWireRow& row : wireTable()) complaints += failureOf(row, *own);
              complaints += localFailures(proxy) + localFailures(*own);
              delete own;
              if (PerixProxy::getInstance() != &proxy) complaints += "another instance; ";
              if (PerixProxy().Init() != -1) complaints += "a new one connects; ";
              return complaints;
            }),
            "");
  point.go();
  for (const auto& call : hanging.get()) call->reply(message(std::string("found")));
  threads.clear();
  delete own;
}

}  // namespace
}  // namespace zq
