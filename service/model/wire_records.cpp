#include "service/model/wire_records.h"

#include <algorithm>
#include <cstring>

#include "perix/events.h"
#include "perix/pen_packet.h"
#include "platform/text/field.h"

namespace zq::devservice {
namespace {

template <typename Layout>
ZQBusBytes block(const Layout& layout) {
  return ZQBusBytes::copyOf(&layout, sizeof layout);
}

}  // namespace

ZQBusBytes deviceRecord(const Device& device) {
  CommonDevice record{};
  record.devNumber = device.number;
  SetDetails(record,
             {static_cast<uint16_t>(device.type), device.id.vid, device.id.pid, device.sourceId});
  record.status = static_cast<uint16_t>(device.status);
  record.localPolicy = static_cast<uint16_t>(device.policy);
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
  SetSourceId(record, device.sourceId);
  record.isSuccess = result == Result::Done ? 1 : 0;
  setField(record.name, device.name);
  setField(record.code, TextOf(result));
  return block(record);
}

ZQBusBytes policyRecord(VidPid id, const VidPidPolicy& policy) {
  CommonVidPidPolicy record{};
  record.vid = id.vid;
  record.pid = id.pid;
  record.policy = static_cast<uint16_t>(policy.policy);
  setField(record.name, policy.name);
  return block(record);
}

ZQBusBytes progressRecord(uint64_t value, uint32_t percent, uint32_t desktop,
                          const std::string& text) {
  const DiagnoseProgress progress{value, percent, desktop};
  std::string bytes(reinterpret_cast<const char*>(&progress), sizeof progress);
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
  PenPortHeader header{};
  header.magic = kPenPortMagic;
  header.devId = static_cast<uint8_t>(std::max(1, pen.number % 256));
  header.cmd = kPenAnnouncementCommand;
  header.size = sizeof header;
  return block(header);
}

}  // namespace zq::devservice
