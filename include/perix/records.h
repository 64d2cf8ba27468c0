/// @file
/// The records that the peripheral service exchanges with its clients, and the callback types.
///
/// Records with a fixed layout are little-endian and lie in memory as they travel: offsets are part
/// of the wire format and are asserted below. The service decides how long a record is. Its last
/// field stands here with the length that today's service uses. A shorter record ends earlier, so
/// do not take `sizeof` of a record for the length that you received.
///
/// Which event carries which record: perix/events.h. What the numbers in records mean, and what the
/// service keeps in their reserved bytes: perix/service_values.h.
///
/// Lifetime. A record in a list is a `malloc` block of exactly the received length; it belongs to
/// the caller. A record passed to a callback belongs to the library and is valid until the callback
/// returns; at least 1024 bytes of it are readable, zero behind the bytes that the service sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zq {

/// A device of the user's machine.
struct CommonDevice {
  uint16_t devNumber;      ///< the service's number for the device, its key in every operation
  uint8_t reserved1[6];    ///< for the service alone
  uint16_t status;         ///< a DeviceStatus; 2 means connected to the desktop `vmId`
  uint16_t localPolicy;    ///< a DevicePolicy
  uint8_t reserved2[8];    ///< for the service alone
  uint32_t vmId;           ///< integer id of the desktop the device is connected to
  uint8_t reserved3[272];  ///< for the service alone
  char name[128];          ///< display name, NUL-terminated
  char detail[256];        ///< further text, NUL-terminated
  char vmIdText[344];      ///< desktop id string; GetDeviceList fills it when `status` is 2
};
static_assert(offsetof(CommonDevice, status) == 8 && offsetof(CommonDevice, localPolicy) == 10);
static_assert(offsetof(CommonDevice, vmId) == 20 && offsetof(CommonDevice, name) == 296);
static_assert(offsetof(CommonDevice, detail) == 424 && offsetof(CommonDevice, vmIdText) == 680);
static_assert(sizeof(CommonDevice) == 1024);

/// The value of CommonDevice::status that means "connected to a desktop".
inline constexpr uint16_t kDeviceConnected = 2;

/// A printer.
struct PrinterDevice {
  uint16_t devNum;       ///< the printer's number, its key in every operation
  uint8_t reserved1[6];  ///< for the service alone
  int32_t vmId;          ///< integer id of the desktop the printer belongs to
  int32_t status;        ///< a PrinterStatus
  char name[256];        ///< NUL-terminated; runs to the end of the record
};
static_assert(offsetof(PrinterDevice, vmId) == 8 && offsetof(PrinterDevice, name) == 16);

/// The outcome of the configuration of a newly plugged device, of a disk command or, as
/// JoystickResult, of a calibration.
struct _ConfigNewDeviceResult {
  uint16_t vid;           ///< USB vendor id
  uint16_t pid;           ///< USB product id
  uint8_t reserved1[14];  ///< for the service alone
  uint16_t isSuccess;     ///< non-zero when the configuration succeeded
  char name[256];         ///< device name, NUL-terminated
  char code[236];         ///< text of a ServiceResult, NUL-terminated; runs to the end
};
static_assert(offsetof(_ConfigNewDeviceResult, isSuccess) == 18);
static_assert(offsetof(_ConfigNewDeviceResult, code) == 276);

/// The outcome of a calibration: a record of the same layout.
using JoystickResult = _ConfigNewDeviceResult;

/// The answer to a service command.
struct CmdResponse {
  int32_t result;   ///< the command's result, 0 for success
  char text[1020];  ///< NUL-terminated; runs to the end of the record
};
static_assert(offsetof(CmdResponse, text) == 4);

/// A policy per vendor and product; perix/service_values.h has its layout.
struct CommonVidPidPolicy;

/// A USB device to be redirected: eight bytes that only the service reads.
struct UDevInfo {
  uint8_t bytes[8];  ///< for the service alone
};
static_assert(sizeof(UDevInfo) == 8);

/// A desktop session, as ConnectVm announces it.
struct VmInfo {
  std::string vmId;                   ///< the desktop's string id
  int32_t systemType;                 ///< kind of guest system; the service knows the values
  int32_t shareMode;                  ///< sharing mode of the session; as systemType
  uint32_t connectParam;              ///< passed to the service, never logged
  uint32_t sessionId;                 ///< logged only
  uint32_t lumMajorVer;               ///< logged only
  uint32_t lumMinorVer;               ///< logged only
  uint32_t lumStreamCollaborateType;  ///< this client's role in a shared stream
};

/// The value of VmInfo::lumStreamCollaborateType for a guest in another user's session.
inline constexpr uint32_t PERIX_LUM_STREAM_COLLAB_TYPE_COLLABORATOR = 1;

/// A data channel of a desktop. `label1` and `label2` hold a NUL within their 128 bytes.
struct _CHANNEL_HANDLE {
  std::string vmId;  ///< string id of its desktop
  uint32_t param1;   ///< the service knows the meaning
  uint32_t param2;   ///< as param1
  char label1[128];  ///< text for the service
  char label2[128];  ///< text for the service
};

/// A printer shared on the network. Each text holds at most 127 characters and is NUL-terminated.
struct _SharePrinterDevice {
  char name[128];  ///< of the printer
  char addr[128];  ///< of the host that shares it
  char desc[128];  ///< further text
};

// Callbacks run on the library's threads, one at a time, while the library holds the lock of its
// registries. A callback that registers or unregisters a callback deadlocks; it may call every
// other operation, and Diagnose, StopDiagnoseNotify and RegisterCmdCallback too. The library does
// not use the results of callbacks; it logs an exception that a callback throws. The code is the
// kind of the event (perix/events.h); desktop callbacks have the code below instead.

/// The code with which a DesktopCallback hears that the service died; `data` is null.
inline constexpr uint16_t SERVICE_DIED = 5;

/// Hears of the service's death. `code` is SERVICE_DIED, `data` null.
using DesktopCallback = int (*)(uint16_t code, void* data, void* userdata);
/// Hears the events of printers.
using PrinterCallback = int (*)(uint16_t code, PrinterDevice* printer, void* userdata);
/// Hears the events of devices.
using DeviceCallback = int (*)(uint16_t code, CommonDevice* device, void* userdata);
/// Hears the answers of PerixProxy::DoPerixCmd.
using CmdCallback = int (*)(uint16_t code, CmdResponse* response, void* userdata);
/// Hears the outcomes of configurations, and every kind of event that no other callback is for.
using ConfigNewDevResultCallback = int (*)(uint16_t code, _ConfigNewDeviceResult* result,
                                           void* userdata);
/// Hears what PerixProxy::JoystickResultNotify passes on.
using JoystickCallback = int (*)(uint16_t code, void* result, void* userdata);

/// Hears how a diagnosis goes on. The client implements it and keeps the object alive until
/// PerixProxy::StopDiagnoseNotify has ended it. The library calls it like the callbacks above.
class PerixDiagnoseNotify {
 public:
  virtual ~PerixDiagnoseNotify() = default;
  /// `value` is the source id of the device that is diagnosed, 0 for a desktop; `progress` says in
  /// percent how far the diagnosis is. Both are the service's.
  virtual void OnDiagnoseProgress(const std::string& vmId, uint64_t value, uint32_t progress,
                                  const std::string& text) = 0;
};

}  // namespace zq
