#include "record_items.h"

namespace zq::console {
namespace {

Light lightOf(DeviceStatus status) {
  switch (status) {
    case DeviceStatus::Waiting:
      return Light::Attention;
    case DeviceStatus::Connected:
      return Light::On;
    case DeviceStatus::Idle:
    case DeviceStatus::Ignored:
      break;
  }
  return Light::Off;
}

Light lightOf(PrinterStatus status) {
  switch (status) {
    case PrinterStatus::Paused:
      return Light::Attention;
    case PrinterStatus::Connected:
    case PrinterStatus::Printing:
      return Light::On;
    case PrinterStatus::Idle:
      break;
  }
  return Light::Off;
}

// The state of an item by the number of today's service for it.
template <typename Status>
void setState(Item& item, Status status) {
  const char* text = TextOf(status);
  item.state = text != nullptr ? QString(text) : QString("state %1").arg(static_cast<int>(status));
  item.state[0] = item.state[0].toUpper();
  item.light = lightOf(status);
}

}  // namespace

QString deviceEventText(uint16_t code) {
  const char* text = TextOf(static_cast<EventKind>(code));
  return text != nullptr ? QString(text) : QString("event %1").arg(code);
}

Item itemOf(const CommonDevice& device, const QString& desktop) {
  Item item;
  item.key = QString::number(device.devNumber);
  item.name = textIn(device.name);
  item.detail = textIn(device.detail);
  setState(item, static_cast<DeviceStatus>(device.status));
  item.connected = device.status == kDeviceConnected;
  item.waiting = device.status == static_cast<uint16_t>(DeviceStatus::Waiting);
  item.sourceId = DetailsOf(device).sourceId;
  if (item.connected) item.desktop = desktop;
  return item;
}

Item itemOf(const PrinterDevice& printer, const QString& desktop) {
  Item item;
  item.key = QString::number(printer.devNum);
  item.name = textIn(printer.name);
  setState(item, static_cast<PrinterStatus>(printer.status));
  item.connected = printer.vmId != 0;
  if (item.connected) item.desktop = desktop;
  return item;
}

Item desktopItem(const QString& name, bool sessionOpen) {
  Item item;
  item.key = name;
  item.name = name.simplified();
  item.state = sessionOpen ? "Open" : "None";
  item.light = sessionOpen ? Light::On : Light::Off;
  item.connected = sessionOpen;
  return item;
}

}  // namespace zq::console
