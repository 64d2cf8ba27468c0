#include "tools/perixctl/why/machine.h"

#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace zq::ctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsbDevices = "/sys/bus/usb/devices";

std::string lineOf(const fs::path& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

/// A number in a file of the kernel; nothing when there is none.
std::optional<unsigned> numberIn(const fs::path& file, int base) {
  const std::string line = lineOf(file);
  unsigned number = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number, base);
  if (error != std::errc() || end == line.data()) return std::nullopt;
  return number;
}

UsbDevice describe(const std::string& root, const fs::path& device) {
  char node[40];
  std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u",
                numberIn(device / "busnum", 10).value_or(0),
                numberIn(device / "devnum", 10).value_or(0));
  UsbDevice found{lineOf(device / "product"), device.filename(), root + node, 0};
  if (::access(found.node.c_str(), R_OK | W_OK) != 0) found.error = errno;
  return found;
}

template <typename Matches>
std::optional<UsbDevice> findUsbDeviceIf(const std::string& root, Matches matches) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(root + kUsbDevices, error)) {
    if (matches(entry.path())) return describe(root, entry.path());
  }
  return std::nullopt;
}

}  // namespace

bool showsUsbDevices(const std::string& root) {
  std::error_code error;
  return fs::is_directory(root + kUsbDevices, error);
}

std::optional<UsbDevice> findUsbDevice(const std::string& root, uint16_t vendor, uint16_t product) {
  return findUsbDeviceIf(root, [&](const fs::path& device) {
    return numberIn(device / "idVendor", 16) == vendor &&
           numberIn(device / "idProduct", 16) == product;
  });
}

std::optional<UsbDevice> findUsbDevice(const std::string& root, const std::string& name) {
  return findUsbDeviceIf(root, [&](const fs::path& device) {
    return strcasecmp(lineOf(device / "product").c_str(), name.c_str()) == 0;
  });
}

std::string processText(int process) {
  const std::string number = std::to_string(process);
  // The words of the command line have a NUL behind each; the kernel's own name is cut.
  const std::string words = lineOf("/proc/" + number + "/cmdline");
  const fs::path program = words.substr(0, words.find('\0'));
  const std::string name = program.filename();
  return "process " + number + (name.empty() ? "" : " (" + name + ")");
}

std::string userText(unsigned user) {
  const passwd* known = ::getpwuid(user);
  return "user " + (known != nullptr ? std::string(known->pw_name) : std::to_string(user));
}

std::optional<DescriptorUse> descriptorUseOf(int process) {
  const std::string directory = "/proc/" + std::to_string(process);
  std::ifstream limits(directory + "/limits");
  for (std::string line; std::getline(limits, line);) {
    unsigned long long most = 0;
    if (std::sscanf(line.c_str(), "Max open files %llu", &most) != 1) continue;
    std::error_code error;
    const fs::directory_iterator open(directory + "/fd", error);
    DescriptorUse use{most, std::nullopt};
    if (!error) use.open = static_cast<uint64_t>(std::distance(begin(open), end(open)));
    return use;
  }
  return std::nullopt;
}

}  // namespace zq::ctl
