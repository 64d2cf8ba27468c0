/// @file
/// The numbers that the service puts into records and answers, and the parts of records that only
/// the service explains.
///
/// The library passes all of these on unread. They are those of today's service: another service
/// may have more, so the functions below return null for a number that they do not know. The texts
/// are literals for people and for scripts; they stay as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "perix/records.h"

namespace zq {

/// The results of operations that return the service's `int`, and of configurations, whose records
/// carry the text in `code`. The library's own -1 is not among them: see perix/failure.h. Nor are
/// the results of DoPerixTest and of commands, which each test and command has for itself.
enum class ServiceResult : int32_t {
  Done = 0,
  UnknownDesktop = 1,
  UnknownDevice = 2,
  DesktopNotConnected = 3,
  AlreadyConnected = 4,
  ConnectedElsewhere = 5,
  NotConnectedHere = 6,
  Forbidden = 7,
  InvalidArgument = 8,
  AlreadyExists = 9,
  NotWaiting = 10,
  NotADisk = 11,
  UnknownPrinter = 12,
  UnknownDriver = 13,
  UnknownPipe = 14,
  HostNotFound = 15,
  Stopped = 16,
  NothingToStop = 17,
  UnknownTest = 18,
  UnknownCommand = 19,
  WrongDeviceType = 20,
  NotMounted = 21,
  NoFreeNumber = 22,
  Busy = 23,
  NoPrintServer = 24,
  PrintServerRefused = 25,
};

/// The result in words; null for a number that stands for none.
constexpr const char* TextOf(ServiceResult result) {
  switch (result) {
    case ServiceResult::Done:
      return "done";
    case ServiceResult::UnknownDesktop:
      return "unknown desktop";
    case ServiceResult::UnknownDevice:
      return "unknown device";
    case ServiceResult::DesktopNotConnected:
      return "the desktop is not connected";
    case ServiceResult::AlreadyConnected:
      return "already connected to this desktop";
    case ServiceResult::ConnectedElsewhere:
      return "connected to another desktop";
    case ServiceResult::NotConnectedHere:
      return "not connected to this desktop";
    case ServiceResult::Forbidden:
      return "forbidden by the device's policy";
    case ServiceResult::InvalidArgument:
      return "invalid argument";
    case ServiceResult::AlreadyExists:
      return "exists already";
    case ServiceResult::NotWaiting:
      return "the device does not wait for its configuration";
    case ServiceResult::NotADisk:
      return "not a disk";
    case ServiceResult::UnknownPrinter:
      return "unknown printer";
    case ServiceResult::UnknownDriver:
      return "unknown driver";
    case ServiceResult::UnknownPipe:
      return "unknown pipe";
    case ServiceResult::HostNotFound:
      return "host not found";
    case ServiceResult::Stopped:
      return "stopped";
    case ServiceResult::NothingToStop:
      return "nothing to stop";
    case ServiceResult::UnknownTest:
      return "unknown test";
    case ServiceResult::UnknownCommand:
      return "unknown command";
    case ServiceResult::WrongDeviceType:
      return "the device is of another type";
    case ServiceResult::NotMounted:
      return "not mounted";
    case ServiceResult::NoFreeNumber:
      return "no device number is free";
    case ServiceResult::Busy:
      return "busy";
    case ServiceResult::NoPrintServer:
      return "the print server does not answer";
    case ServiceResult::PrintServerRefused:
      return "the print server refused";
  }
  return nullptr;
}

/// The types of device, in DeviceDetails and in the operations that take a type: SetAutoConnect,
/// AddNetworkDevice, ConfigNewDeviceAsConnect and the like.
enum class DeviceType : uint16_t {
  Usb = 1,
  Disk = 2,
  Camera = 3,
  Scanner = 4,
  Joystick = 5,
  Pen = 6,
  Audio = 7,
  SmartCard = 8,
  Printer = 9,
};

/// The type in a word; null for a number that stands for none.
constexpr const char* TextOf(DeviceType type) {
  switch (type) {
    case DeviceType::Usb:
      return "usb";
    case DeviceType::Disk:
      return "disk";
    case DeviceType::Camera:
      return "camera";
    case DeviceType::Scanner:
      return "scanner";
    case DeviceType::Joystick:
      return "joystick";
    case DeviceType::Pen:
      return "pen";
    case DeviceType::Audio:
      return "audio";
    case DeviceType::SmartCard:
      return "smartcard";
    case DeviceType::Printer:
      return "printer";
  }
  return nullptr;
}

/// CommonDevice::status.
enum class DeviceStatus : uint16_t {
  Idle = 0,
  Waiting = 1,                   ///< for its configuration, see EventKind::NewDevice
  Connected = kDeviceConnected,  ///< to the desktop that the record names
  Ignored = 3,                   ///< by a decision of the user; until the device is plugged again
};

/// The state in a word; null for a number that stands for none.
constexpr const char* TextOf(DeviceStatus status) {
  switch (status) {
    case DeviceStatus::Idle:
      return "idle";
    case DeviceStatus::Waiting:
      return "waiting";
    case DeviceStatus::Connected:
      return "connected";
    case DeviceStatus::Ignored:
      return "ignored";
  }
  return nullptr;
}

/// CommonDevice::localPolicy and CommonVidPidPolicy::policy: whether a device may be connected.
enum class DevicePolicy : uint16_t { Ask = 0, Allow = 1, Forbid = 2 };

/// The policy in a word; null for a number that stands for none.
constexpr const char* TextOf(DevicePolicy policy) {
  switch (policy) {
    case DevicePolicy::Ask:
      return "ask";
    case DevicePolicy::Allow:
      return "allow";
    case DevicePolicy::Forbid:
      return "forbid";
  }
  return nullptr;
}

/// PrinterDevice::status.
enum class PrinterStatus : int32_t {
  Idle = 0,
  Paused = 1,     ///< connected or not; takes no document
  Connected = 2,  ///< to the desktop that the record names, and idle
  Printing = 3,   ///< connected or not
};

/// The state in a word; null for a number that stands for none.
constexpr const char* TextOf(PrinterStatus status) {
  switch (status) {
    case PrinterStatus::Idle:
      return "idle";
    case PrinterStatus::Paused:
      return "paused";
    case PrinterStatus::Connected:
      return "connected";
    case PrinterStatus::Printing:
      return "printing";
  }
  return nullptr;
}

/// The commands of PerixProxy::ConfigUdisks2Command.
enum class DiskCommand : int32_t {
  Mount = 1,    ///< the event is DiskMounted
  Unmount = 2,  ///< the event is DiskUnmounted
  Eject = 3,    ///< unmounts the disk, then removes the device
};

/// The commands of PerixProxy::ConfigPrinterCommand. The source id there is the printer's number.
enum class PrinterCommand : int32_t { Pause = 1, Resume = 2 };

/// A policy that holds for all devices of a vendor and product, as GetPolicyListByVidPid returns
/// it. Little-endian, as it travels; a record may be shorter, as in perix/records.h.
struct CommonVidPidPolicy {
  uint16_t vid;     ///< USB vendor id
  uint16_t pid;     ///< USB product id
  uint16_t policy;  ///< a DevicePolicy
  char name[128];   ///< of the device for which the policy was set, NUL-terminated
};
static_assert(offsetof(CommonVidPidPolicy, name) == 6 && sizeof(CommonVidPidPolicy) == 134);

/// What the service keeps in the reserved bytes of a device record: `type`, `vid` and `pid` at the
/// offsets 2, 4 and 6, `sourceId` at 12.
struct DeviceDetails {
  uint16_t type;      ///< a DeviceType
  uint16_t vid;       ///< USB vendor id
  uint16_t pid;       ///< USB product id
  uint64_t sourceId;  ///< the service's id of the device, its key in operations by source id
};

/// Reads the details from a record, of which the first 20 bytes must be readable.
inline DeviceDetails DetailsOf(const CommonDevice& device) {
  DeviceDetails details{};
  std::memcpy(&details, device.reserved1, sizeof device.reserved1);
  std::memcpy(&details.sourceId, device.reserved2, sizeof device.reserved2);
  return details;
}

/// Writes the details into a record.
inline void SetDetails(CommonDevice& device, const DeviceDetails& details) {
  std::memcpy(device.reserved1, &details, sizeof device.reserved1);
  std::memcpy(device.reserved2, &details.sourceId, sizeof device.reserved2);
}
static_assert(offsetof(CommonDevice, reserved1) == 2 && offsetof(CommonDevice, reserved2) == 12);
static_assert(offsetof(DeviceDetails, pid) == 4);

/// Reads the source id of the device from the first bytes of `reserved1` of an outcome, of which
/// the first 12 bytes must be readable. Joystick results have it, too.
inline uint64_t SourceIdOf(const _ConfigNewDeviceResult& result) {
  uint64_t sourceId;
  std::memcpy(&sourceId, result.reserved1, sizeof sourceId);
  return sourceId;
}

/// Writes the source id into an outcome.
inline void SetSourceId(_ConfigNewDeviceResult& result, uint64_t sourceId) {
  std::memcpy(result.reserved1, &sourceId, sizeof sourceId);
}

}  // namespace zq
