/// @file
/// The kinds of event that the service sends, and which callback hears each kind.
///
/// An event carries the integer id of a desktop (0: of none), a kind, and a record. The library
/// calls one kind of callback for each event, with the event's kind as the 16-bit code and with the
/// record of perix/records.h that the list below names. A callback that wants to tell the kinds
/// apart converts its code: `static_cast<EventKind>(code)`.
///
/// Newer services may send kinds that are not listed here. A client ignores them or shows their
/// number.
#pragma once

#include <cstdint>

namespace zq {

/// The kinds of event, with the callback that hears each kind and its record.
///
/// Device events reach every DeviceCallback with a CommonDevice; configuration events reach every
/// ConfigNewDevResultCallback with a _ConfigNewDeviceResult.
enum class EventKind : int32_t {
  Printer = 1,        ///< a printer came, went or changed; PrinterCallback, PrinterDevice
  DeviceState = 4,    ///< device: was connected, disconnected or changed
  DeviceRefused = 5,  ///< device: its automatic connection was refused
  DeviceArrived = 6,  ///< device: was plugged or added
  DeviceRemoved = 7,  ///< device: was unplugged or deleted

  /// A diagnosis goes on; PerixDiagnoseNotify. The record is a DiagnoseProgress and a text.
  DiagnoseProgress = 9,

  NewDevice = 10,            ///< device: waits for its configuration
  ConfiguredConnect = 11,    ///< configuration: the device was connected
  ConfiguredIgnore = 12,     ///< configuration: the device is ignored
  ConfigurationFailed = 13,  ///< configuration: failed; `code` of the record says why
  DiskCommandDone = 14,      ///< configuration: a disk command was carried out or refused

  /// Configuration: a calibration has ended. The record is a JoystickResult. Joystick callbacks do
  /// not hear it: see PerixProxy::RegisterJoystickCallback.
  JoystickCalibrated = 16,

  DiskMounted = 64,      ///< device: its file system was mounted; comes as a broadcast
  DiskUnmounted = 65,    ///< device: its file system was unmounted
  CommandResponse = 66,  ///< the answer to a command; CmdCallback, CmdResponse

  /// Kinds that joystick callbacks are meant to hear. Today's service sends neither, and the
  /// library takes them for configuration events like every kind that it does not know.
  JoystickResult = 70,
  JoystickEnd = 71,
};

/// The callbacks that events reach.
enum class EventListener { Printer, Device, Command, Diagnosis, Configuration };

/// The callback that hears a kind of event. It is Configuration for all numbers that stand for no
/// kind: configuration callbacks hear everything that no other callback is for. Desktop callbacks
/// hear no event, only the death of the service (SERVICE_DIED, a code of their own).
constexpr EventListener ListenerOf(EventKind kind) {
  switch (kind) {
    case EventKind::Printer:
      return EventListener::Printer;
    case EventKind::DeviceState:
    case EventKind::DeviceRefused:
    case EventKind::DeviceArrived:
    case EventKind::DeviceRemoved:
    case EventKind::NewDevice:
    case EventKind::DiskMounted:
    case EventKind::DiskUnmounted:
      return EventListener::Device;
    case EventKind::CommandResponse:
      return EventListener::Command;
    case EventKind::DiagnoseProgress:
      return EventListener::Diagnosis;
    case EventKind::ConfiguredConnect:
    case EventKind::ConfiguredIgnore:
    case EventKind::ConfigurationFailed:
    case EventKind::DiskCommandDone:
    case EventKind::JoystickCalibrated:
    case EventKind::JoystickResult:
    case EventKind::JoystickEnd:
      break;
  }
  return EventListener::Configuration;
}

/// What happened to the subject of the event's record, in a word or two ("arrived"). A literal;
/// null for a number that stands for no kind.
constexpr const char* TextOf(EventKind kind) {
  switch (kind) {
    case EventKind::Printer:
    case EventKind::DeviceState:
      return "changed";
    case EventKind::DeviceRefused:
      return "connection refused";
    case EventKind::DeviceArrived:
      return "arrived";
    case EventKind::DeviceRemoved:
      return "removed";
    case EventKind::DiagnoseProgress:
      return "diagnosis";
    case EventKind::NewDevice:
      return "wants configuration";
    case EventKind::ConfiguredConnect:
      return "connected";
    case EventKind::ConfiguredIgnore:
      return "ignored";
    case EventKind::ConfigurationFailed:
      return "failed";
    case EventKind::DiskCommandDone:
      return "disk command";
    case EventKind::JoystickCalibrated:
    case EventKind::JoystickResult:
      return "joystick";
    case EventKind::DiskMounted:
      return "mounted";
    case EventKind::DiskUnmounted:
      return "unmounted";
    case EventKind::CommandResponse:
      return "answered";
    case EventKind::JoystickEnd:
      return "joystick end";
  }
  return nullptr;
}

/// The beginning of the record of a DiagnoseProgress event, little-endian. A text follows it and
/// ends with a NUL. Clients get the parts as arguments of PerixDiagnoseNotify.
struct DiagnoseProgress {
  uint64_t value;     ///< source id of the device that is diagnosed, 0 for a desktop's diagnosis
  uint32_t progress;  ///< percent
  uint32_t vmId;      ///< integer id of the desktop
};
static_assert(sizeof(DiagnoseProgress) == 16);

}  // namespace zq
