// The records that the peripheral service exchanges with its clients, and the callback types.
//
// Fixed-layout records are little-endian and lie in memory as they travel: offsets are part of the
// wire format and are asserted below. The service decides how long a record is. The last field of
// each stands here with the length that today's service uses; a record that is shorter ends
// earlier, so do not take `sizeof` of these for the length of what you received.
//
// Lifetime. A record in a list is a `malloc` block of exactly the received length that belongs to
// the caller. A record passed to a callback belongs to the library and is valid until the callback
// returns; at least 1024 bytes of it are readable, zero behind what the service sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zq {

/// A device of the user's machine.
struct CommonDevice {
  uint16_t devNumber;      ///< the service's number for the device, its key in every operation
  uint8_t reserved1[6];    ///< the service's own
  uint16_t status;         ///< redirection state; 2 means connected to the desktop `vmId`
  uint16_t localPolicy;    ///< the device's local policy
  uint8_t reserved2[8];    ///< the service's own
  uint32_t vmId;           ///< integer id of the desktop the device is connected to
  uint8_t reserved3[272];  ///< the service's own
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
  uint8_t reserved1[6];  ///< the service's own
  int32_t vmId;          ///< integer id of the desktop the printer belongs to
  int32_t status;        ///< the printer's state, the service's own values
  char name[256];        ///< NUL-terminated; runs to the end of the record
};
static_assert(offsetof(PrinterDevice, vmId) == 8 && offsetof(PrinterDevice, name) == 16);

/// The outcome of the configuration of a newly plugged device.
struct _ConfigNewDeviceResult {
  uint16_t vid;           ///< USB vendor id
  uint16_t pid;           ///< USB product id
  uint8_t reserved1[14];  ///< the service's own
  uint16_t isSuccess;     ///< non-zero when the configuration succeeded
  char name[256];         ///< device name, NUL-terminated
  char code[236];         ///< result code, NUL-terminated; runs to the end of the record
};
static_assert(offsetof(_ConfigNewDeviceResult, isSuccess) == 18);
static_assert(offsetof(_ConfigNewDeviceResult, code) == 276);

/// The outcome of a joystick operation: `vid`, `pid` and `name` lie as in a configuration result.
using JoystickResult = _ConfigNewDeviceResult;

/// The answer to a service command.
struct CmdResponse {
  int32_t result;   ///< the command's result, 0 for success
  char text[1020];  ///< NUL-terminated; runs to the end of the record
};
static_assert(offsetof(CmdResponse, text) == 4);

/// A policy per vendor and product; the service and its clients agree on the content.
struct CommonVidPidPolicy;

/// A USB device to be redirected; eight bytes that only the service reads.
struct UDevInfo {
  uint8_t bytes[8];
};
static_assert(sizeof(UDevInfo) == 8);

/// A desktop session, as ConnectVm announces it.
struct VmInfo {
  std::string vmId;                   ///< the desktop's string id
  int32_t systemType;                 ///< kind of guest system, the service's values
  int32_t shareMode;                  ///< sharing mode of the session, the service's values
  uint32_t connectParam;              ///< passed to the service, never logged
  uint32_t sessionId;                 ///< logged only
  uint32_t lumMajorVer;               ///< logged only
  uint32_t lumMinorVer;               ///< logged only
  uint32_t lumStreamCollaborateType;  ///< this client's role in a shared stream
};

/// The value of VmInfo::lumStreamCollaborateType for a guest in somebody else's session.
inline constexpr uint32_t PERIX_LUM_STREAM_COLLAB_TYPE_COLLABORATOR = 1;

/// A data channel of a desktop. `label1` and `label2` hold a NUL within their 128 bytes.
struct _CHANNEL_HANDLE {
  std::string vmId;
  uint32_t param1;
  uint32_t param2;
  char label1[128];
  char label2[128];
};

/// A printer shared on the network. Each text holds at most 127 characters and is NUL-terminated.
struct _SharePrinterDevice {
  char name[128];
  char addr[128];
  char desc[128];
};

// Callbacks run on the library's threads, one at a time, while the library holds the lock of its
// registries: a callback may call every other operation, but registering or unregistering from
// inside one deadlocks, Diagnose, StopDiagnoseNotify and RegisterCmdCallback aside. The results of
// callbacks are not used; what they throw is logged.

/// The code with which a DesktopCallback hears that the service died; `data` is null.
inline constexpr uint16_t SERVICE_DIED = 5;

using DesktopCallback = int (*)(uint16_t code, void* data, void* userdata);
using PrinterCallback = int (*)(uint16_t code, PrinterDevice* printer, void* userdata);
using DeviceCallback = int (*)(uint16_t code, CommonDevice* device, void* userdata);
using CmdCallback = int (*)(uint16_t code, CmdResponse* response, void* userdata);
using ConfigNewDevResultCallback = int (*)(uint16_t code, _ConfigNewDeviceResult* result,
                                           void* userdata);
using JoystickCallback = int (*)(uint16_t code, void* result, void* userdata);

/// Hears how a diagnosis goes on. Implemented by the client, which keeps it alive until
/// PerixProxy::StopDiagnoseNotify has ended it; called like the callbacks above.
class PerixDiagnoseNotify {
 public:
  virtual ~PerixDiagnoseNotify() = default;
  /// `value` and `progress` are the service's: what is diagnosed, and how far it is in percent.
  virtual void OnDiagnoseProgress(const std::string& vmId, uint64_t value, uint32_t progress,
                                  const std::string& text) = 0;
};

}  // namespace zq
