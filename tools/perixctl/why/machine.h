// This machine, as its kernel shows it: USB devices and processes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zq::ctl {

/// A USB device of a machine.
struct UsbDevice {
  std::string product;  ///< the name that it gives itself; may be empty
  std::string port;     ///< as the kernel names it, "1-2"
  std::string node;     ///< "/dev/bus/usb/001/004"
  int error;            ///< of opening the node, as errno; 0 when this user can open it
};

/// Whether the machine shows its USB devices at all. `root` is "" or the directory where its file
/// system is mounted.
bool showsUsbDevices(const std::string& root);
/// The first USB device of that vendor and product.
std::optional<UsbDevice> findUsbDevice(const std::string& root, uint16_t vendor, uint16_t product);
/// The first USB device of that name; capital letters do not matter.
std::optional<UsbDevice> findUsbDevice(const std::string& root, const std::string& name);

/// "process 812 (perix-devservice)"; without the name where the kernel does not tell it.
std::string processText(int process);
/// "user alice", or "user 1234" for a user without a name.
std::string userText(unsigned user);

/// The descriptors that a process may have open, and has, where the kernel tells.
struct DescriptorUse {
  uint64_t most;
  std::optional<uint64_t> open;
};
std::optional<DescriptorUse> descriptorUseOf(int process);

}  // namespace zq::ctl
