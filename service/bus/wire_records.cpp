#include "service/bus/wire_records.h"

#include <algorithm>
#include <cstring>

#include "perix/records.h"
#include "platform/text/field.h"

namespace zq::devservice {
namespace {

constexpr uint16_t kPenAnnounces = 2101;

struct PolicyLayout {
  uint16_t vid;
  uint16_t pid;
  uint16_t policy;
  char name[128];
};
static_assert(sizeof(PolicyLayout) == 134);

struct PenHeaderLayout {
  uint8_t magic;
  uint8_t deviceId;
  uint16_t command;
  uint32_t request;
  uint32_t size;
  uint32_t reserved;
};
static_assert(sizeof(PenHeaderLayout) == 16);

template <typename Layout>
ZQBusBytes block(const Layout& layout) {
  return ZQBusBytes::copyOf(&layout, sizeof layout);
}

}  // namespace

ZQBusBytes deviceRecord(const Device& device) {
  CommonDevice record{};
  const uint16_t kind[] = {static_cast<uint16_t>(device.type), device.id.vid, device.id.pid};
  record.devNumber = device.number;
  std::memcpy(record.reserved1, kind, sizeof record.reserved1);
  record.status = static_cast<uint16_t>(device.status);
  record.localPolicy = static_cast<uint16_t>(device.policy);
  std::memcpy(record.reserved2, &device.sourceId, sizeof record.reserved2);
  record.vmId = device.desktop;
  setField(record.name, device.name);
  setField(record.detail, device.detail);
  return block(record);
}

ZQBusBytes printerRecord(const Printer& printer) {
  PrinterDevice record{};
  record.devNum = printer.number;
  record.vmId = static_cast<int32_t>(printer.desktop);
  record.status = static_cast<int32_t>(printer.status);
  setField(record.name, printer.name);
  return block(record);
}

ZQBusBytes networkPrinterRecord(const Printer& printer) {
  Device device;
  device.number = printer.number;
  device.sourceId = printer.number;
  device.type = DeviceType::Printer;
  device.status = printer.desktop == 0 ? DeviceStatus::Idle : DeviceStatus::Connected;
  device.desktop = printer.desktop;
  device.name = printer.name;
  device.detail = printer.address;
  return deviceRecord(device);
}

ZQBusBytes outcomeRecord(const Device& device, Result result) {
  _ConfigNewDeviceResult record{};
  record.vid = device.id.vid;
  record.pid = device.id.pid;
  std::memcpy(record.reserved1, &device.sourceId, sizeof device.sourceId);
  record.isSuccess = result == Result::Done ? 1 : 0;
  setField(record.name, device.name);
  setField(record.code, inWords(result));
  return block(record);
}

ZQBusBytes policyRecord(VidPid id, const VidPidPolicy& policy) {
  PolicyLayout record{};
  record.vid = id.vid;
  record.pid = id.pid;
  record.policy = static_cast<uint16_t>(policy.policy);
  setField(record.name, policy.name);
  return block(record);
}

ZQBusBytes progressRecord(uint64_t value, uint32_t percent, uint32_t desktop,
                          const std::string& text) {
  std::string bytes;
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
  bytes.append(reinterpret_cast<const char*>(&percent), sizeof percent);
  bytes.append(reinterpret_cast<const char*>(&desktop), sizeof desktop);
  bytes.append(text.c_str(), text.size() + 1);
  return ZQBusBytes::copyOf(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

ZQBusBytes commandRecord(int32_t result, const std::string& text) {
  CmdResponse record{};
  record.result = result;
  setField(record.text, text);
  return block(record);
}

ZQBusBytes penAnnouncement(const Device& pen) {
  PenHeaderLayout header{};
  header.magic = 0x27;
  header.deviceId = static_cast<uint8_t>(std::max(1, pen.number % 256));
  header.command = kPenAnnounces;
  header.size = sizeof header;
  return block(header);
}

}  // namespace zq::devservice
