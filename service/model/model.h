// The parts of the world as plain data.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "perix/service_values.h"

namespace zq::devservice {

using zq::TextOf;

/// The answer of the model's operations and of most methods of the service.
using Result = ServiceResult;

/// Where a printer comes from.
enum class PrinterOrigin { Local, Network, Shared };

constexpr const char* TextOf(PrinterOrigin origin) {
  switch (origin) {
    case PrinterOrigin::Local:
      return "local";
    case PrinterOrigin::Network:
      return "network";
    case PrinterOrigin::Shared:
      return "shared";
  }
  return nullptr;
}

/// The longest texts, in bytes, that the fields of the records hold.
inline constexpr std::size_t kDeviceNameLimit = sizeof(CommonDevice::name) - 1;
inline constexpr std::size_t kDeviceDetailLimit = sizeof(CommonDevice::detail) - 1;
inline constexpr std::size_t kDesktopNameLimit = sizeof(CommonDevice::vmIdText) - 1;
inline constexpr std::size_t kPrinterNameLimit = sizeof(PrinterDevice::name) - 1;
inline constexpr std::size_t kCommandAnswerLimit = sizeof(CmdResponse::text) - 1;
inline constexpr std::size_t kSharedTextLimit = sizeof(_SharePrinterDevice::addr) - 1;

/// USB vendor and product id.
struct VidPid {
  uint16_t vid = 0;
  uint16_t pid = 0;
  auto operator<=>(const VidPid&) const = default;
};

struct Pipe {
  uint32_t param1 = 0;
  uint32_t param2 = 0;
  std::string label1;
  std::string label2;
  bool operator==(const Pipe&) const = default;
};

/// The two values of a bandwidth report.
using Bandwidth = std::array<int64_t, 2>;

struct Desktop {
  uint32_t id = 0;  ///< 0 stands for "no desktop" in all records
  std::string name;
  bool connected = false;
  bool started = false;
  bool focused = false;
  int32_t systemType = 0;
  int32_t shareMode = 0;
  uint32_t connectParam = 0;
  int64_t windowId = 0;
  std::vector<Pipe> pipes;
  std::map<uint32_t, int32_t> ports;                  ///< port number to reported status
  std::optional<Bandwidth> bandwidth;                 ///< the last report
  std::map<int64_t, std::optional<int64_t>> quality;  ///< type to the last value reported
  std::map<std::string, uint16_t> usbRedirections;    ///< device info in hex to status
};

/// The source id of a device that is given none.
constexpr uint64_t derivedSourceId(uint16_t number) {
  return uint64_t{1} << 32 | number;
}

struct Device {
  uint16_t number = 0;    ///< 0 lets the service choose
  uint64_t sourceId = 0;  ///< 0 lets the service derive it from the number
  DeviceType type = DeviceType::Usb;
  VidPid id;
  std::string name;
  std::string detail;
  DeviceStatus status = DeviceStatus::Idle;
  uint32_t desktop = 0;
  DevicePolicy policy = DevicePolicy::Ask;
  bool mounted = false;
  bool network = false;
  std::string address;  ///< of a network device
};

struct Printer {
  uint16_t number = 0;  ///< 0 lets the service choose
  PrinterOrigin origin = PrinterOrigin::Local;
  std::string name;
  std::string address;
  std::string driver;
  std::string description;
  PrinterStatus status = PrinterStatus::Idle;
  uint32_t desktop = 0;
  std::string document;  ///< the document that it prints now
};

struct Driver {
  std::string name;
  std::string maker;
};

struct SharedPrinter {
  std::string name;
  std::string description;
};

/// A host of the network that shares printers.
struct SharedHost {
  std::string address;
  int64_t searchMs = 1000;
  bool reachable = true;
  std::vector<SharedPrinter> printers;
};

struct VidPidPolicy {
  DevicePolicy policy = DevicePolicy::Ask;
  std::string name;
};

/// A command of DoPerixCmd, with a fixed answer.
struct PerixCommand {
  std::string name;
  std::string help;
  std::string answer;
  int32_t result = 0;
};

/// A self-test with a fixed outcome.
struct SelfTest {
  std::string name;
  int32_t result = 0;
};

/// How long the work of the service takes, in milliseconds.
struct Timing {
  int64_t configuration = 20;
  int64_t diagnosisStep = 200;
  int64_t calibration = 300;
  int64_t printJob = 300;
  int64_t printerSetup = 300;
  int64_t summary = 200;
  int64_t unknownHost = 2000;
};

/// The world at the start.
struct Scenario {
  std::vector<Desktop> desktops;
  std::vector<Device> devices;
  std::vector<Printer> printers;
  std::vector<Driver> drivers;
  std::vector<SharedHost> hosts;
  std::map<VidPid, VidPidPolicy> policies;
  std::map<VidPid, int32_t> properties;
  std::map<VidPid, int32_t> setProperties;  ///< as clients set them
  std::map<VidPid, std::string> turbo;
  std::map<VidPid, std::string> joystickMappings;
  std::vector<DeviceType> autoConnect;
  std::vector<PerixCommand> commands;
  std::vector<SelfTest> tests;
  bool cameraAuthorized = true;
  Timing timing;
};

}  // namespace zq::devservice
