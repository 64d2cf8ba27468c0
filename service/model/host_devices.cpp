#include "service/model/host_devices.h"

#include <libudev.h>

#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace zq::devservice {
namespace {

struct Release {
  void operator()(udev* manager) const { udev_unref(manager); }
  void operator()(udev_enumerate* enumeration) const { udev_enumerate_unref(enumeration); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
};
template <typename Handle>
using Owned = std::unique_ptr<Handle, Release>;

/// Classes of USB interfaces and the types of device that they stand for, in hex as the kernel
/// writes them.
struct InterfaceClass {
  std::string_view code;
  DeviceType type;
};
constexpr std::array kInterfaceClasses = {
    InterfaceClass{"01", DeviceType::Audio},     InterfaceClass{"06", DeviceType::Scanner},
    InterfaceClass{"07", DeviceType::Printer},   InterfaceClass{"08", DeviceType::Disk},
    InterfaceClass{"0b", DeviceType::SmartCard}, InterfaceClass{"0e", DeviceType::Camera},
};
constexpr std::string_view kHubClass = "09";

std::string attribute(udev_device* device, const char* name) {
  const char* value = udev_device_get_sysattr_value(device, name);
  return value == nullptr ? std::string() : value;
}

uint16_t hexAttribute(udev_device* device, const char* name) {
  const std::string text = attribute(device, name);
  uint16_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return number;
}

/// The type by the interfaces that the device manager lists, ":080650:0e0100:".
DeviceType typeOf(udev_device* device) {
  const char* interfaces = udev_device_get_property_value(device, "ID_USB_INTERFACES");
  const std::string_view list = interfaces == nullptr ? "" : interfaces;
  for (const InterfaceClass& known : kInterfaceClasses) {
    if (list.find(":" + std::string(known.code)) != std::string_view::npos) return known.type;
  }
  return DeviceType::Usb;
}

Device asDevice(udev_device* device) {
  Device found;
  found.id = {hexAttribute(device, "idVendor"), hexAttribute(device, "idProduct")};
  found.type = typeOf(device);
  found.name = attribute(device, "product").substr(0, kDeviceNameLimit);
  if (found.name.empty()) found.name = "USB device";
  found.detail = (attribute(device, "manufacturer") + " " + udev_device_get_sysname(device))
                     .substr(0, kDeviceDetailLimit);
  return found;
}

}  // namespace

std::vector<Device> hostDevices() {
  std::vector<Device> devices;
  const Owned<udev> manager(udev_new());
  if (!manager) return devices;
  const Owned<udev_enumerate> enumeration(udev_enumerate_new(manager.get()));
  if (!enumeration) return devices;
  udev_enumerate_add_match_subsystem(enumeration.get(), "usb");
  udev_enumerate_add_match_property(enumeration.get(), "DEVTYPE", "usb_device");
  udev_enumerate_scan_devices(enumeration.get());
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumeration.get())) {
    const char* path = udev_list_entry_get_name(entry);
    const Owned<udev_device> device(udev_device_new_from_syspath(manager.get(), path));
    if (!device || attribute(device.get(), "bDeviceClass") == kHubClass) continue;
    devices.push_back(asDevice(device.get()));
  }
  return devices;
}

}  // namespace zq::devservice
