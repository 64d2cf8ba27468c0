// Events of any kind, with any arguments and records of any length, to callbacks that read their
// records as far as they may.
#include <cstring>

#include "fuzz/connected_proxy.h"
#include "fuzz/input.h"

namespace zq::fuzz {
namespace {

constexpr std::size_t kLongestRecord = 2000;
constexpr int kKinds[] = {1, 4, 5, 6, 7, 9, 10, 11, 16, 64, 65, 66, 70, 71};

int callbacks = 0;
volatile unsigned int sum;  // keeps the reading from being optimised away

/// Reads all that the contract of callbacks promises: 1024 bytes, and a text that begins within
/// them up to its end.
void readRecord(const void* record, std::size_t textAt) {
  const auto* bytes = static_cast<const unsigned char*>(record);
  for (std::size_t i = 0; i < ZQBusMessage::kReadable; ++i) sum = sum + bytes[i];
  sum = sum + std::strlen(static_cast<const char*>(record) + textAt);
  ++callbacks;
}

int onPrinter(uint16_t code, PrinterDevice* printer, void*) {
  require(code == 1);
  readRecord(printer, offsetof(PrinterDevice, name));
  return 0;
}

int onDevice(uint16_t code, CommonDevice* device, void*) {
  require(code >= 4 && code <= 65);
  readRecord(device, offsetof(CommonDevice, vmIdText));
  return 0;
}

int onCommand(uint16_t code, CmdResponse* response, void*) {
  require(code == 66);
  readRecord(response, offsetof(CmdResponse, text));
  return 0;
}

int onConfiguration(uint16_t, _ConfigNewDeviceResult* result, void*) {
  readRecord(result, offsetof(_ConfigNewDeviceResult, code));
  return 0;
}

class Progress : public PerixDiagnoseNotify {
 public:
  void OnDiagnoseProgress(const std::string& vmId, uint64_t, uint32_t,
                          const std::string& text) override {
    require(vmId.empty() || vmId == kDesktop);
    require(text.find('\0') == std::string::npos);
    ++callbacks;
  }
};

PerixProxy& listeningProxy() {
  static Progress progress;
  static PerixProxy& proxy = [&]() -> PerixProxy& {
    PerixProxy& made = connectedProxy();
    made.RegisterPrinterCallback(onPrinter, &progress);
    made.RegisterDeviceCallback(onDevice, &progress);
    made.RegisterCmdCallback(onCommand, &progress);
    made.RegisterConfigNewDevResultCallback(onConfiguration, &progress);
    made.Diagnose(kDesktop, &progress);
    return made;
  }();
  return proxy;
}

ZQBusArgument anyKind(FuzzedDataProvider& input) {
  return input.ConsumeBool() ? input.PickValueInArray(kKinds) : input.ConsumeIntegral<int32_t>();
}

std::shared_ptr<ZQBusMessage> anyEvent(FuzzedDataProvider& input) {
  auto event = std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, "perixevent");
  const int count = input.ConsumeIntegralInRange(0, 4);
  const bool wellFormed = input.ConsumeIntegralInRange(0, 3) != 0;
  for (int i = 0; i < count; ++i) {
    if (!wellFormed) {
      event->append(anyArgument(input, true));
    } else if (i == 0) {
      event->appendInt32(input.ConsumeIntegralInRange(0, 2 * kDesktopId));
    } else if (i == 1) {
      event->append(anyKind(input));
    } else {
      event->append(anyBytes(input, kLongestRecord));
    }
  }
  return event;
}

/// How many callbacks an event is for: one, but none without the record that most kinds need.
int expectedCallbacks(const ZQBusMessage& event) {
  const int kind = event.readInt32(1);
  uint32_t length = 0;
  event.readBytes(2, length);
  const bool needsRecord = kind != 66 && kind != 9;
  return needsRecord && length == 0 ? 0 : 1;
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  FuzzedDataProvider input(data, size);
  const auto event = anyEvent(input);
  callbacks = 0;
  listeningProxy().HandleEvent(event);
  require(callbacks == expectedCallbacks(*event));
  return 0;
}
