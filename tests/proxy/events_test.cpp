// Events and the callbacks registered for them; the death and return of the service. On any bus.

#include "tests/proxy/callbacks.h"
#include "tests/support/recording_service.h"
#include "tests/support/sleeps.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

using Heard = std::vector<std::string>;

/// Where every callback writes what it heard; its address is the userdata.
struct Listener : PerixDiagnoseNotify {
  Watched<Heard> heard;

  void note(const std::string& line) { heard.append(line); }
  void OnDiagnoseProgress(const std::string& vmId, uint64_t value, uint32_t progress,
                          const std::string& text) override {
    note("progress " + vmId + ' ' + std::to_string(value) + ' ' + std::to_string(progress) + ' ' +
         text.substr(0, 9));
  }
};

std::string shown(const void*) {
  return "no record";
}
std::string shown(const CommonDevice* device) {
  return "device #" + std::to_string(device->devNumber) + ' ' + device->name;
}
std::string shown(const PrinterDevice* printer) {
  return "printer #" + std::to_string(printer->devNum) + ' ' + printer->name;
}
std::string shown(const _ConfigNewDeviceResult* result) {
  return "result " + std::to_string(result->vid) + ' ' + result->name + result->code;
}
std::string shown(const CmdResponse* response) {
  return "command " + std::to_string(response->result) + ' ' + response->text;
}

/// Every callback.
template <typename Record>
int hear(uint16_t code, Record* record, void* userdata) {
  static_cast<Listener*>(userdata)->note(std::to_string(code) + ' ' + shown(record));
  return 0;
}

/// Registers one of every kind, and as the notifier of a diagnosis.
void registerAll(PerixProxy& proxy, Listener& all) {
  proxy.RegisterCallback("desk-3", hear<void>, &all);
  proxy.RegisterDeviceCallback(hear<CommonDevice>, &all);
  proxy.RegisterPrinterCallback(hear<PrinterDevice>, &all);
  proxy.RegisterConfigNewDevResultCallback(hear<_ConfigNewDeviceResult>, &all);
  proxy.RegisterCmdCallback(hear<CmdResponse>, &all);
  proxy.RegisterJoystickCallback(hear<void>, &all);
  proxy.Diagnose("desk-3", &all);
}

/// An event with a payload or without any.
template <typename... Payload>
std::shared_ptr<ZQBusMessage> event(int desktop, int kind, const Payload&... payload) {
  return std::make_shared<ZQBusMessage>(
      message(int32_t{desktop}, int32_t{kind}, bytes(payload)...));
}

template <typename Record>
std::string bytesOf(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

const std::string kCommand("\5\0\0\0done", 8);
const std::string kDevice = bytesOf(CommonDevice{.devNumber = 7, .status = 1, .name = "cam"});
const std::string kPrinter = bytesOf(PrinterDevice{.devNum = 8, .name = "lp"});
const std::string kResult = bytesOf(_ConfigNewDeviceResult{.vid = 9, .name = "cam", .code = "OK"});

std::string progressPayload(uint32_t desktop) {
  return bytesOf(uint64_t{1} << 40) + bytesOf(uint32_t{50}) + bytesOf(desktop) + "halfway";
}

struct EventRow {
  int kind;
  std::string full;   ///< a payload as the service sends it,
  Heard heard;        ///< what is heard of it,
  Heard heardOfByte;  ///< of its first byte alone,
  Heard heardOfNone;  ///< and of an empty or absent payload
};

std::vector<EventRow> eventRows() {
  const Heard none = {"progress  0 0 "};
  std::vector<EventRow> rows = {
      {1, kPrinter, {"1 printer #8 lp"}, {"1 printer #8 "}, {}},
      {66, kCommand, {"66 command 5 done"}, {"66 command 5 "}, {"66 command 0 "}},
      {9, progressPayload(3), {"progress desk-3 1099511627776 50 halfway"}, none, none},
      {9, progressPayload(4), {"progress  1099511627776 50 halfway"}, none, none},
  };
  for (const int kind : {4, 6, 7, 10, 64, 65, 5}) {
    const std::string head = std::to_string(kind) + " device #7 ";
    rows.push_back({kind, kDevice, {head + "cam"}, {head}, {}});
  }
  // Everything else counts as the result of a configuration, joystick results and what no version
  // of the service sends yet included.
  for (const int kind : {11, 12, 13, 14, 16, 70, 71, 0, 2, 999, -1}) {
    const std::string head = std::to_string(static_cast<uint16_t>(kind)) + " result 9 ";
    rows.push_back({kind, kResult, {head + "camOK"}, {head}, {}});
  }
  return rows;
}

TEST(Event, ReachesCallbacksOfItsKindAlone) {
  RecordingService service;
  Listener all;
  PerixProxy& proxy = *PerixProxy::getInstance();
  registerAll(proxy, all);
  for (const EventRow& row : eventRows()) {
    SCOPED_TRACE(row.kind);
    proxy.HandleEvent(event(3, row.kind, row.full));
    EXPECT_EQ(all.heard.take(), row.heard);
    proxy.HandleEvent(event(3, row.kind, row.full.substr(0, 1)));
    EXPECT_EQ(all.heard.take(), row.heardOfByte);
    proxy.HandleEvent(event(3, row.kind, ""));
    EXPECT_EQ(all.heard.take(), row.heardOfNone);
    proxy.HandleEvent(event(3, row.kind));
    EXPECT_EQ(all.heard.take(), row.heardOfNone);
    // Every length up to the full one, for what reads beyond the end.
    for (std::size_t length = 2; length < row.full.size(); ++length) {
      proxy.HandleEvent(event(999, row.kind, row.full.substr(0, length)));
    }
    proxy.HandleEvent(event(999, row.kind, std::string(2000, '\xFF')));
    all.heard.take();
  }
  PerixProxy::getInstance()->Diagnose("", nullptr);
  proxy.HandleEvent(event(3, 9, progressPayload(3)));
  EXPECT_EQ(all.heard.take(), Heard{});
}

TEST(Registry, RefusesNulls) {
  PerixProxy proxy;
  for (void* const userdata : {static_cast<void*>(nullptr), static_cast<void*>(&proxy)}) {
    const bool none = userdata != nullptr;  // else a callback without userdata
    EXPECT_EQ(proxy.RegisterDeviceCallback(none ? nullptr : hear<CommonDevice>, userdata), -1);
    EXPECT_EQ(proxy.RegisterPrinterCallback(none ? nullptr : hear<PrinterDevice>, userdata), -1);
    EXPECT_EQ(proxy.RegisterConfigNewDevResultCallback(
                  none ? nullptr : hear<_ConfigNewDeviceResult>, userdata),
              -1);
    EXPECT_EQ(proxy.RegisterJoystickCallback(none ? nullptr : hear<void>, userdata), -1);
  }
  EXPECT_EQ(proxy.RegisterCallback("", nullptr, nullptr), 0);
  EXPECT_EQ(proxy.RegisterCmdCallback(nullptr, nullptr), 0);
  EXPECT_EQ(proxy.UnregisterCallback("nobody"), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), nullptr);
  EXPECT_EQ(proxy.CheckPrinterCallback(), nullptr);
}

TEST(Registry, KnowsCallbacksByTheirUserdata) {
  PerixProxy proxy;
  Listener some[3];
  /// How often each of them hears an event.
  const auto heard = [&](int kind, const std::string& payload) {
    proxy.HandleEvent(event(0, kind, payload));
    std::string counts;
    for (Listener& one : some) counts += std::to_string(one.heard.take().size());
    return counts;
  };
  for (const int i : {1, 0, 0})
    EXPECT_EQ(proxy.RegisterDeviceCallback(hear<CommonDevice>, &some[i]), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), &some[0]);
  EXPECT_EQ(heard(4, kDevice), "110");
  EXPECT_EQ(proxy.UnregisterDeviceCallback(&some[0]), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), &some[1]);
  EXPECT_EQ(proxy.UnregisterDeviceCallback(), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), nullptr);

  for (const int i : {0, 2})
    EXPECT_EQ(proxy.RegisterPrinterCallback(hear<PrinterDevice>, &some[i]), 0);
  EXPECT_EQ(proxy.CheckPrinterCallback(), &some[2]);
  EXPECT_EQ(heard(1, kPrinter), "001");
  EXPECT_EQ(proxy.UnregisterPrinterCallback(), 0);
  EXPECT_EQ(heard(1, kPrinter), "000");

  for (const int i : {0, 1})
    proxy.RegisterConfigNewDevResultCallback(hear<_ConfigNewDeviceResult>, &some[i]);
  EXPECT_EQ(proxy.UnregisterConfigNewDevResultCallback(&some[0]), 0);
  EXPECT_EQ(heard(11, kResult), "010");
  EXPECT_EQ(proxy.UnregisterConfigNewDevResultCallback(), 0);
  EXPECT_EQ(heard(11, kResult), "000");

  for (const int i : {2, 0, 1, 0}) proxy.RegisterJoystickCallback(hear<void>, &some[i]);
  EXPECT_EQ(proxy.UnregisterJoystickCallback(&some[1]), 0);
  EXPECT_EQ(proxy.JoystickResultNotify(1, nullptr), 0);
  EXPECT_EQ(heard(-2, ""), "101");
}

TEST(Registry, MayChangeWhileEventsArrive) {
  RecordingService service;
  PerixProxy& proxy = *PerixProxy::getInstance();
  Listener steady;
  Listener coming;
  proxy.RegisterDeviceCallback(hear<CommonDevice>, &steady);
  constexpr std::size_t kEvents = 300;
  std::atomic<bool> stop = false;
  std::thread changer([&] {
    while (!stop) {
      registerAll(proxy, coming);
      proxy.UnregisterDeviceCallback(&coming);
      proxy.UnregisterPrinterCallback();
      proxy.UnregisterConfigNewDevResultCallback(&coming);
    }
  });
  std::thread checker([&] {
    while (!stop) {
      void* const first = proxy.CheckDeviceCallback();
      EXPECT_TRUE(first == &steady || first == &coming);
      void* const printer = proxy.CheckPrinterCallback();
      EXPECT_TRUE(printer == nullptr || printer == &coming);
    }
  });
  for (std::size_t i = 0; i < kEvents; ++i) {
    service.sendEvent(3, 4, kDevice);
    service.sendEvent(3, 1, kPrinter);
    service.sendEvent(3, 66, kCommand);
  }
  service.bus().sendBroadcast("mountedEvent", message(int32_t{3}, int32_t{6}, bytes(kDevice)));
  EXPECT_TRUE(steady.heard.waitForSize(kEvents + 1));
  stop = true;
  changer.join();
  checker.join();
  proxy.UnregisterDeviceCallback();
  proxy.RegisterCmdCallback(nullptr, nullptr);
  proxy.Diagnose("", nullptr);
}

// --- Deaths --------------------------------------------------------------------------------------

TEST(ServiceName, HasOneOwnerAndAnotherEachTime) {
  ZQBusSerivceManager& bus = *ZQBusSerivceManager::initSync(-1);
  std::string before;
  for (int claim = 1; claim <= 2; ++claim) {
    auto service = std::make_unique<RecordingService>();
    std::string error;
    EXPECT_EQ(ZQBusService::claim(
                  "perix", {}, [](const auto&) {}, error),
              nullptr);
    EXPECT_NE(error, "");
    const auto way = bus.getServiceProxyInterface("perix", ZQBusSecurityFlags::None, 1);
    ASSERT_NE(way, nullptr);
    EXPECT_NE(way->owner(), std::exchange(before, way->owner()));
    service.reset();
    const auto call = way->makeMethodCallMessage("echo");
    EXPECT_EQ(way->callWithReplyBlocking(call, -1)->failure(), ZQBusFailure::PeerGone);
    EXPECT_EQ(bus.getServiceProxyInterface("perix", ZQBusSecurityFlags::None, 1), nullptr);
  }
}

TEST(Proxy, ConnectsWhenServiceComes) {
  PerixProxy* const proxy = PerixProxy::getInstance();
  ASSERT_NE(proxy, nullptr);
  EXPECT_EQ(proxy->Init(), -1);
  EXPECT_EQ(proxy->ConnectDevice("office-1", 1), -1);
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::NoService);
  proxy->ReleaseService();
  for (const char* part :
       {R"("Error:" "get zqbus interface failed")", "perix_proxy_devices.cpp ConnectDevice("}) {
    EXPECT_NE(logText().find(part), std::string::npos) << part;
  }

  const RecordingService service;
  EXPECT_EQ(PerixProxy::getInstance(), proxy);
  EXPECT_EQ(proxy->Init(), 0);
  EXPECT_EQ(proxy->GetVmIdInt("office-1"), 1U);
}

TEST(Death, IsToldOnceToEachDesktop) {
  auto service = std::make_unique<RecordingService>();
  PerixProxy& proxy = *PerixProxy::getInstance();
  Watched<int> deaths[3];
  proxy.RegisterCallback("office-1", countDeath, &deaths[0]);
  proxy.RegisterCallback("office-1", countDeath, &deaths[1]);  // in place of the first
  proxy.RegisterCallback("unknown", countDeath, &deaths[2]);
  ASSERT_EQ(proxy.GetVmIdInt("office-1"), 1U);

  Watched<std::shared_ptr<ZQBusCall>> hanging;
  service->answerWith([&](const std::shared_ptr<ZQBusCall>& call) { hanging.set(call); });
  auto waiting = soon([&] {
    EXPECT_TRUE(proxy.GetDeviceList("office-1").empty());
    return PerixLastFailure().failure;
  });
  ASSERT_TRUE(hanging.wait([](const auto& held) { return held != nullptr; }));
  service.reset();
  EXPECT_EQ(waiting.get(), PerixFailure::Died);
  ASSERT_TRUE(sleeps().wait([](int count) { return count >= 2; }));
  EXPECT_EQ(proxy.GetVmIdString(1), "");
  EXPECT_EQ(deaths[1].get(), 0);  // told once the service is back
  service = std::make_unique<RecordingService>();
  ASSERT_TRUE(deaths[1].waitFor(1));
  ASSERT_TRUE(deaths[2].waitFor(1));
  EXPECT_EQ(deaths[0].get(), 0);
  EXPECT_EQ(proxy.ConnectDevice("office-1", 1), 0);
}

}  // namespace
}  // namespace zq
