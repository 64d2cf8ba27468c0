// Events and the callbacks registered for them.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "perix/perix_proxy.h"
#include "tests/support/recording_service.h"
#include "zqbus/message.h"

namespace zq {
namespace {

using Heard = std::vector<std::string>;

/// Where every callback writes what it heard; its address is the userdata.
struct Listener : PerixDiagnoseNotify {
  Watched<Heard> heard;

  void note(const std::string& line) {
    heard.change([&](Heard& all) { all.push_back(line); });
  }
  Heard take() {
    Heard all;
    heard.change([&](Heard& now) { all.swap(now); });
    return all;
  }
  void OnDiagnoseProgress(const std::string& vmId, uint64_t value, uint32_t progress,
                          const std::string& text) override {
    note("progress " + vmId + ' ' + std::to_string(value) + ' ' + std::to_string(progress) + ' ' +
         text.substr(0, 9));
  }
};

Listener& listener(void* userdata) {
  return *static_cast<Listener*>(userdata);
}

int onDesktop(uint16_t code, void* data, void* userdata) {
  listener(userdata).note("desktop " + std::to_string(code) + (data == nullptr ? "" : " data"));
  return 0;
}
int onDevice(uint16_t code, CommonDevice* device, void* userdata) {
  listener(userdata).note("device " + std::to_string(code) + " #" +
                          std::to_string(device->devNumber) + ' ' + device->name);
  return 0;
}
int onPrinter(uint16_t code, PrinterDevice* printer, void* userdata) {
  listener(userdata).note("printer " + std::to_string(code) + " #" +
                          std::to_string(printer->devNum) + ' ' + printer->name);
  return 0;
}
int onResult(uint16_t code, _ConfigNewDeviceResult* result, void* userdata) {
  listener(userdata).note("result " + std::to_string(code) + ' ' + std::to_string(result->vid) +
                          ' ' + result->name + result->code);
  return 0;
}
int onCommand(uint16_t code, CmdResponse* response, void* userdata) {
  listener(userdata).note("command " + std::to_string(code) + ' ' +
                          std::to_string(response->result) + ' ' + response->text);
  return 0;
}
int onJoystick(uint16_t code, void*, void* userdata) {
  listener(userdata).note("joystick " + std::to_string(code));
  return 0;
}

/// Registers one of every kind, and as the notifier of a diagnosis.
void registerAll(PerixProxy& proxy, Listener& all) {
  proxy.RegisterCallback("desk-3", onDesktop, &all);
  proxy.RegisterDeviceCallback(onDevice, &all);
  proxy.RegisterPrinterCallback(onPrinter, &all);
  proxy.RegisterConfigNewDevResultCallback(onResult, &all);
  proxy.RegisterCmdCallback(onCommand, &all);
  proxy.RegisterJoystickCallback(onJoystick, &all);
  proxy.Diagnose("desk-3", &all);
}

std::shared_ptr<ZQBusMessage> event(int desktop, int kind) {
  auto made = std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, "perixevent");
  made->appendInt32(desktop);
  made->appendInt32(kind);
  return made;
}

std::shared_ptr<ZQBusMessage> event(int desktop, int kind, const std::string& payload) {
  auto made = event(desktop, kind);
  made->append(bytes(payload));
  return made;
}

template <typename Record>
std::string bytesOf(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

std::string devicePayload() {
  CommonDevice device{};
  device.devNumber = 7;
  device.status = 1;
  std::strcpy(device.name, "cam");
  return bytesOf(device);
}

std::string printerPayload() {
  PrinterDevice printer{};
  printer.devNum = 8;
  std::strcpy(printer.name, "lp");
  return bytesOf(printer);
}

std::string resultPayload() {
  _ConfigNewDeviceResult result{};
  result.vid = 9;
  std::strcpy(result.name, "cam");
  std::strcpy(result.code, "OK");
  return bytesOf(result);
}

std::string commandPayload() {
  return std::string("\5\0\0\0done", 8);
}

std::string progressPayload(uint32_t desktop) {
  const uint64_t value = 1ULL << 40;
  const uint32_t percent = 50;
  std::string payload = bytesOf(value) + bytesOf(percent) + bytesOf(desktop);
  return payload + "halfway";
}

struct EventRow {
  int kind;
  std::string full;   ///< a payload as the service sends it,
  Heard heard;        ///< what is heard of it,
  Heard heardOfByte;  ///< of its first byte alone,
  Heard heardOfNone;  ///< and of an empty or absent payload
};

std::vector<EventRow> eventRows() {
  std::vector<EventRow> rows = {
      {1, printerPayload(), {"printer 1 #8 lp"}, {"printer 1 #8 "}, {}},
      {66, commandPayload(), {"command 66 5 done"}, {"command 66 5 "}, {"command 66 0 "}},
      {9,
       progressPayload(3),
       {"progress desk-3 1099511627776 50 halfway"},
       {"progress  0 0 "},
       {"progress  0 0 "}},
      {9,
       progressPayload(4),
       {"progress  1099511627776 50 halfway"},
       {"progress  0 0 "},
       {"progress  0 0 "}},
  };
  for (const int kind : {4, 6, 7, 10, 64, 65, 5}) {
    const std::string head = "device " + std::to_string(kind) + " #7 ";
    rows.push_back({kind, devicePayload(), {head + "cam"}, {head}, {}});
  }
  // Everything else counts as the result of a configuration, joystick results and what no version
  // of the service sends yet included.
  for (const int kind : {11, 12, 13, 14, 16, 70, 71, 0, 2, 999, -1}) {
    const std::string head = "result " + std::to_string(static_cast<uint16_t>(kind)) + " 9 ";
    rows.push_back({kind, resultPayload(), {head + "camOK"}, {head}, {}});
  }
  return rows;
}

TEST(AnEvent, ReachesTheCallbacksOfItsKindAndNoOthers) {
  RecordingService service;
  Listener all;
  PerixProxy& proxy = *PerixProxy::getInstance();
  registerAll(proxy, all);
  for (const EventRow& row : eventRows()) {
    SCOPED_TRACE(row.kind);
    proxy.HandleEvent(event(3, row.kind, row.full));
    EXPECT_EQ(all.take(), row.heard);
    proxy.HandleEvent(event(3, row.kind, row.full.substr(0, 1)));
    EXPECT_EQ(all.take(), row.heardOfByte);
    proxy.HandleEvent(event(3, row.kind, ""));
    EXPECT_EQ(all.take(), row.heardOfNone);
    proxy.HandleEvent(event(3, row.kind));
    EXPECT_EQ(all.take(), row.heardOfNone);
    // Every length up to the full one, for what reads beyond the end.
    for (std::size_t length = 2; length < row.full.size(); ++length) {
      proxy.HandleEvent(event(999, row.kind, row.full.substr(0, length)));
    }
    proxy.HandleEvent(event(999, row.kind, std::string(2000, '\xFF')));
    all.take();
  }
  PerixProxy::getInstance()->Diagnose("", nullptr);
  proxy.HandleEvent(event(3, 9, progressPayload(3)));
  EXPECT_EQ(all.take(), Heard{});
}

TEST(AnEvent, TravelsFromTheServiceToTheCallback) {
  RecordingService service;
  Listener all;
  registerAll(*PerixProxy::getInstance(), all);
  const std::string payload = devicePayload();
  service.sendEvent(3, 4, payload.data(), payload.size());
  service.bus().sendBroadcast("mountedEvent", message(int32_t{3}, int32_t{6}, bytes(payload)));
  ASSERT_TRUE(all.heard.wait([](const Heard& heard) { return heard.size() == 2; }));
  // The broadcast's sender is looked into first, so that it may come second.
  const Heard heard = all.take();
  EXPECT_NE(std::find(heard.begin(), heard.end(), "device 4 #7 cam"), heard.end());
  EXPECT_NE(std::find(heard.begin(), heard.end(), "device 6 #7 cam"), heard.end());
}

TEST(ARegistry, RefusesNullsWhereItSaysSo) {
  PerixProxy proxy;
  for (void* const userdata : {static_cast<void*>(nullptr), static_cast<void*>(&proxy)}) {
    const bool none = userdata != nullptr;  // else a callback without userdata
    EXPECT_EQ(proxy.RegisterDeviceCallback(none ? nullptr : onDevice, userdata), -1);
    EXPECT_EQ(proxy.RegisterPrinterCallback(none ? nullptr : onPrinter, userdata), -1);
    EXPECT_EQ(proxy.RegisterConfigNewDevResultCallback(none ? nullptr : onResult, userdata), -1);
    EXPECT_EQ(proxy.RegisterJoystickCallback(none ? nullptr : onJoystick, userdata), -1);
  }
  EXPECT_EQ(proxy.RegisterCallback("", nullptr, nullptr), 0);
  EXPECT_EQ(proxy.RegisterCmdCallback(nullptr, nullptr), 0);
  EXPECT_EQ(proxy.UnregisterCallback("nobody"), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), nullptr);
  EXPECT_EQ(proxy.CheckPrinterCallback(), nullptr);
}

TEST(ARegistry, KnowsCallbacksByTheirUserdata) {
  PerixProxy proxy;
  Listener some[3];
  /// How often each of them hears an event.
  const auto heard = [&](int kind, const std::string& payload) {
    proxy.HandleEvent(event(0, kind, payload));
    std::string counts;
    for (Listener& one : some) counts += std::to_string(one.take().size());
    return counts;
  };
  for (const int i : {1, 0, 0}) EXPECT_EQ(proxy.RegisterDeviceCallback(onDevice, &some[i]), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), &some[0]);
  EXPECT_EQ(heard(4, devicePayload()), "110");
  EXPECT_EQ(proxy.UnregisterDeviceCallback(&some[0]), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), &some[1]);
  EXPECT_EQ(proxy.UnregisterDeviceCallback(), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), nullptr);

  for (const int i : {0, 2}) EXPECT_EQ(proxy.RegisterPrinterCallback(onPrinter, &some[i]), 0);
  EXPECT_EQ(proxy.CheckPrinterCallback(), &some[2]);
  EXPECT_EQ(heard(1, printerPayload()), "001");
  EXPECT_EQ(proxy.UnregisterPrinterCallback(), 0);
  EXPECT_EQ(heard(1, printerPayload()), "000");

  for (const int i : {0, 1}) proxy.RegisterConfigNewDevResultCallback(onResult, &some[i]);
  EXPECT_EQ(proxy.UnregisterConfigNewDevResultCallback(&some[0]), 0);
  EXPECT_EQ(heard(11, resultPayload()), "010");
  EXPECT_EQ(proxy.UnregisterConfigNewDevResultCallback(), 0);
  EXPECT_EQ(heard(11, resultPayload()), "000");

  for (const int i : {2, 0, 1, 0}) proxy.RegisterJoystickCallback(onJoystick, &some[i]);
  EXPECT_EQ(proxy.UnregisterJoystickCallback(&some[1]), 0);
  EXPECT_EQ(proxy.JoystickResultNotify(1, nullptr), 0);
  EXPECT_EQ(heard(-2, ""), "101");
}

TEST(ACallback, ThatSleepsHoldsUpNoCall) {
  RecordingService service;
  PerixProxy& proxy = *PerixProxy::getInstance();
  static Watched<bool> entered;
  static Watched<bool> released;
  const auto sleeper = [](uint16_t, CommonDevice*, void*) -> int {
    entered.change([](bool& yes) { yes = true; });
    return released.wait([](bool yes) { return yes; }) ? 0 : -1;
  };
  proxy.RegisterDeviceCallback(sleeper, &proxy);
  const std::string payload = devicePayload();
  service.sendEvent(3, 4, payload.data(), payload.size());
  ASSERT_TRUE(entered.wait([](bool yes) { return yes; }));
  EXPECT_EQ(proxy.ConnectDevice("desk-3", 1), 0);
  EXPECT_EQ(proxy.OnFocusChanged("desk-3", 1, 1), 0);
  EXPECT_EQ(proxy.CheckDeviceCallback(), &proxy);
  released.change([](bool& yes) { yes = true; });
  proxy.UnregisterDeviceCallback();
}

TEST(TheRegistries, MayChangeWhileEventsArrive) {
  RecordingService service;
  PerixProxy& proxy = *PerixProxy::getInstance();
  Listener steady;
  Listener coming;
  proxy.RegisterDeviceCallback(onDevice, &steady);
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
  const std::string device = devicePayload();
  const std::string printer = printerPayload();
  const std::string command = commandPayload();
  for (std::size_t i = 0; i < kEvents; ++i) {
    service.sendEvent(3, 4, device.data(), device.size());
    service.sendEvent(3, 1, printer.data(), printer.size());
    service.sendEvent(3, 66, command.data(), command.size());
  }
  EXPECT_TRUE(steady.heard.wait([](const Heard& all) { return all.size() == kEvents; }));
  stop = true;
  changer.join();
  checker.join();
  proxy.UnregisterDeviceCallback();
  proxy.RegisterCmdCallback(nullptr, nullptr);
  proxy.Diagnose("", nullptr);
}

}  // namespace
}  // namespace zq
