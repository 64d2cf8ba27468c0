// Callback registries, and the dispatch of the service's events to them.
#include <cstring>

#include "callback_guard.h"
#include "log_line.h"
#include "perix/perix_proxy.h"
#include "record_text.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

enum EventKind : int {
  kPrinterEvent = 1,
  kDiagnoseProgress = 9,
  kCommandResponse = 66,
  kJoystickResult = 70,
  kJoystickEnd = 71,
};

// How a diagnosis's progress lies in its record: two values, the desktop, and a text to the end.
constexpr std::size_t kProgressValue = 0;
constexpr std::size_t kProgressPercent = 8;
constexpr std::size_t kProgressDesktop = 12;
constexpr std::size_t kProgressText = 16;

template <typename T>
T valueAt(const uint8_t* record, std::size_t offset) {
  T value;
  std::memcpy(&value, record + offset, sizeof value);
  return value;
}

bool isDeviceEvent(int kind) {
  return kind == 4 || kind == 6 || kind == 7 || kind == 10;
}
bool isFurtherDeviceEvent(int kind) {
  return kind == 64 || kind == 65 || kind == 5;
}

bool isConfigResult(int kind) {
  // Newer services have kinds that this list does not know, and clients hear of those too: every
  // kind that gets here counts.
  constexpr bool kEveryOtherKind = true;
  return kind == 11 || kind == 12 || kind == 13 || kind == 14 || kEveryOtherKind || kind == 16;
}

bool eitherIsNull(const void* callback, const void* userdata, LogSite site = here()) {
  if (callback != nullptr && userdata != nullptr) return false;
  PERIX_ERROR_AT(site, "callback or userData is NULL");
  return true;
}

template <typename Callback>
void* address(Callback callback) {
  return reinterpret_cast<void*>(callback);
}

}  // namespace

// --- Dispatch ------------------------------------------------------------------------------------

void PerixProxy::HandleEvent(std::shared_ptr<ZQBusMessage> event) {
  const std::string vmId = GetVmIdString(static_cast<unsigned int>(event->readInt32(0)));
  PERIX_DEBUG("enter");
  const int kind = event->readInt32(1);
  uint32_t length = 0;
  // The block is valid for as long as it is held here, and readable beyond its length.
  const auto payload = event->readBytes(2, length);
  if (dispatch(kind, vmId, payload.get(), length)) PERIX_DEBUG("end");
}

/// Calls the callbacks for an event; false when it lacks the record that its kind needs.
bool PerixProxy::dispatch(int kind, const std::string& vmId, uint8_t* payload, uint32_t length) {
  if (kind == kPrinterEvent) {
    return handlePrinterEvent(kind, reinterpret_cast<PrinterDevice*>(payload), length);
  }
  if (isDeviceEvent(kind) || isFurtherDeviceEvent(kind)) {
    return handleDeviceEvent(kind, reinterpret_cast<CommonDevice*>(payload), length);
  }
  if (kind == kCommandResponse) {
    handleCommandResponse(kind, reinterpret_cast<CmdResponse*>(payload));
  } else if (kind == kDiagnoseProgress) {
    handleDiagnoseProgress(payload);
  } else if (isConfigResult(kind)) {
    return handleConfigResult(kind, reinterpret_cast<_ConfigNewDeviceResult*>(payload), length);
  } else {
    handleJoystickOrDesktopEvent(kind, vmId, payload);
  }
  return true;
}

bool PerixProxy::handlePrinterEvent(int kind, PrinterDevice* printer, uint32_t length) {
  PERIX_DEBUG("printer callback: %p", address(printerCallback.load().callback));
  if (length == 0) return false;
  PERIX_DEBUG("devNum:%d, vmId: %d, status:%d, name:%s", printer->devNum, printer->vmId,
              printer->status, fieldText(printer->name).c_str());
  const std::lock_guard lock(callbackMutex);
  const auto slot = printerCallback.load();
  if (slot.callback == nullptr) return true;
  guarded([&] { slot.callback(static_cast<uint16_t>(kind), printer, slot.userdata); });
  return true;
}

bool PerixProxy::handleDeviceEvent(int kind, CommonDevice* device, uint32_t length) {
  if (length == 0) return false;
  const std::string name = fieldText(device->name);
  if (isDeviceEvent(kind)) {
    PERIX_DEBUG("devNum:%d, vmId: %d, status:%d, name:%s this:%p cmd[%d]", device->devNumber,
                static_cast<int>(device->vmId), device->status, name.c_str(),
                static_cast<void*>(this), kind);
  } else {
    PERIX_DEBUG("cmd: %d, status: %d, name:%s\n", kind, device->status, name.c_str());
  }
  DeviceBaseInfoNotify(static_cast<uint16_t>(kind), device);
  return true;
}

void PerixProxy::handleCommandResponse(int kind, CmdResponse* response) {
  const std::lock_guard lock(callbackMutex);
  const auto slot = cmdCallback.load();
  if (slot.callback == nullptr) return;
  PERIX_DEBUG("cmd response callback this[%p] ", static_cast<void*>(this));
  guarded([&] { slot.callback(static_cast<uint16_t>(kind), response, slot.userdata); });
  PERIX_DEBUG("cb exec end");
}

void PerixProxy::handleDiagnoseProgress(const uint8_t* record) {
  const std::lock_guard lock(callbackMutex);
  if (diagnoseNotify == nullptr) return;
  PERIX_DEBUG("cmd response callback this[%p] ", static_cast<void*>(this));
  const std::string vmId = GetVmIdString(valueAt<uint32_t>(record, kProgressDesktop));
  guarded([&] {
    diagnoseNotify->OnDiagnoseProgress(vmId, valueAt<uint64_t>(record, kProgressValue),
                                       valueAt<uint32_t>(record, kProgressPercent),
                                       reinterpret_cast<const char*>(record + kProgressText));
  });
  PERIX_DEBUG("cb exec end");
}

bool PerixProxy::handleConfigResult(int kind, _ConfigNewDeviceResult* result, uint32_t length) {
  if (length == 0) return false;
  PERIX_DEBUG("cmd: %d, vidpid[0x%.4x0x%.4x], code: %s, name:%s\n", kind, result->vid, result->pid,
              fieldText(result->code).c_str(), fieldText(result->name).c_str());
  ConfigNewDeviceResultNotify(static_cast<uint16_t>(kind), result);
  return true;
}

/// Not reached while every other kind counts as a configuration result. Clients of services that
/// told these kinds apart are built against this order, so it is kept for the day on which the
/// service does so again.
void PerixProxy::handleJoystickOrDesktopEvent(int kind, const std::string& vmId, uint8_t* payload) {
  if (kind == kJoystickResult) {
    const auto& result = *reinterpret_cast<JoystickResult*>(payload);
    PERIX_DEBUG("cmd: %d, vidpid[0x%.4x0x%.4x], name:%s\n", kind, result.vid, result.pid,
                fieldText(result.name).c_str());
    JoystickResultNotify(1, payload);
    return;
  }
  if (kind == kJoystickEnd) {
    PERIX_DEBUG("cmd: %d", kind);
    JoystickResultNotify(2, nullptr);
    return;
  }
  const std::lock_guard lock(callbackMutex);
  const auto found = vmCallbacks.find(vmId);
  if (found == vmCallbacks.end()) {
    PERIX_DEBUG("this event is not for me");
    return;
  }
  const auto& slot = found->second;
  PERIX_DEBUG("callback:%p, cmd: %d, userData: %p", address(slot.callback), kind, slot.userdata);
  if (slot.callback == nullptr) return;
  guarded([&] { slot.callback(static_cast<uint16_t>(kind), payload, slot.userdata); });
}

int PerixProxy::DeviceBaseInfoNotify(uint16_t code, CommonDevice* device) {
  const std::lock_guard lock(callbackMutex);
  const auto callbacks = deviceCallbacks;
  for (const auto& [userdata, callback] : callbacks) {
    guarded([&, call = callback, data = userdata] { call(code, device, data); });
    PERIX_DEBUG("userdata:%p,devNum:%d, vmId: %d, status:%d, name:%s cmd[%d]", userdata,
                device->devNumber, static_cast<int>(device->vmId), device->status,
                fieldText(device->name).c_str(), code);
  }
  return 0;
}

int PerixProxy::ConfigNewDeviceResultNotify(uint16_t code, _ConfigNewDeviceResult* result) {
  const std::lock_guard lock(callbackMutex);
  const auto callbacks = configResultCallbacks;
  for (const auto& [userdata, callback] : callbacks) {
    guarded([&, call = callback, data = userdata] { call(code, result, data); });
    PERIX_DEBUG("userdata:%p,name:%s, code:%s, isSuccess: %d, vid:0x%.4x, pid:%.4x cmd[%d]",
                userdata, fieldText(result->name).c_str(), fieldText(result->code).c_str(),
                result->isSuccess, result->vid, result->pid, code);
  }
  return 0;
}

int PerixProxy::JoystickResultNotify(uint16_t code, void* result) {
  const std::lock_guard lock(callbackMutex);
  for (const auto& slot : joystickCallbacks) {
    guarded([&] { slot.callback(code, result, slot.userdata); });
  }
  return 0;
}

// --- Registries ----------------------------------------------------------------------------------

int PerixProxy::RegisterCallback(std::string vmId, DesktopCallback callback, void* userdata) {
  PERIX_DEBUG("registerCallback:vmId:%s callback %p userdata:%p", vmId.c_str(), address(callback),
              userdata);
  {
    const std::lock_guard lock(callbackMutex);
    vmCallbacks[vmId] = {callback, userdata};
  }
  PERIX_DEBUG("end");
  return 0;
}

int PerixProxy::UnregisterCallback(std::string vmId) {
  PERIX_DEBUG("unregistercallback vmid:%s", vmId.c_str());
  const std::lock_guard lock(callbackMutex);
  vmCallbacks.erase(vmId);
  return 0;
}

int PerixProxy::RegisterPrinterCallback(PrinterCallback callback, void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  const std::lock_guard lock(callbackMutex);
  printerCallback = CallbackSlot<PrinterCallback>{callback, userdata};
  return 0;
}

int PerixProxy::UnregisterPrinterCallback() {
  const std::lock_guard lock(callbackMutex);
  printerCallback = CallbackSlot<PrinterCallback>{};
  return 0;
}

void* PerixProxy::CheckPrinterCallback() {
  return printerCallback.load().userdata;
}

int PerixProxy::RegisterDeviceCallback(DeviceCallback callback, void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  PERIX_DEBUG("enter, cb[%p] userData[%p]", address(callback), userdata);
  {
    const std::lock_guard lock(callbackMutex);
    deviceCallbacks[userdata] = callback;
    noteFirstDeviceUserdata();
  }
  PERIX_DEBUG("end, cb[%p] userData[%p]", address(callback), userdata);
  return 0;
}

int PerixProxy::UnregisterDeviceCallback(void* userdata) {
  PERIX_DEBUG("userData[%p] enter", userdata);
  {
    const std::lock_guard lock(callbackMutex);
    deviceCallbacks.erase(userdata);
    noteFirstDeviceUserdata();
  }
  PERIX_DEBUG("userData[%p] end", userdata);
  return 0;
}

int PerixProxy::UnregisterDeviceCallback() {
  PERIX_DEBUG("enter");
  {
    const std::lock_guard lock(callbackMutex);
    deviceCallbacks.clear();
    noteFirstDeviceUserdata();
  }
  PERIX_DEBUG("end");
  return 0;
}

/// Keeps what CheckDeviceCallback reads without a lock. Under callbackMutex.
void PerixProxy::noteFirstDeviceUserdata() {
  firstDeviceUserdata = deviceCallbacks.empty() ? nullptr : deviceCallbacks.begin()->first;
}

void* PerixProxy::CheckDeviceCallback() {
  return firstDeviceUserdata;
}

int PerixProxy::RegisterCmdCallback(CmdCallback callback, void* userdata) {
  cmdCallback = CallbackSlot<CmdCallback>{callback, userdata};
  return 0;
}

int PerixProxy::RegisterConfigNewDevResultCallback(ConfigNewDevResultCallback callback,
                                                   void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  {
    const std::lock_guard lock(callbackMutex);
    configResultCallbacks[userdata] = callback;
  }
  PERIX_DEBUG("enter, cb[%p] userData[%p]", address(callback), userdata);
  return 0;
}

int PerixProxy::UnregisterConfigNewDevResultCallback(void* userdata) {
  {
    const std::lock_guard lock(callbackMutex);
    configResultCallbacks.erase(userdata);
  }
  PERIX_DEBUG("end userData[%p]", userdata);
  return 0;
}

int PerixProxy::UnregisterConfigNewDevResultCallback() {
  const std::lock_guard lock(callbackMutex);
  configResultCallbacks.clear();
  return 0;
}

int PerixProxy::RegisterJoystickCallback(JoystickCallback callback, void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  const std::lock_guard lock(callbackMutex);
  for (auto& slot : joystickCallbacks) {
    if (slot.userdata != userdata) continue;
    slot.callback = callback;
    return 0;
  }
  joystickCallbacks.push_back({callback, userdata});
  return 0;
}

int PerixProxy::UnregisterJoystickCallback(void* userdata) {
  const std::lock_guard lock(callbackMutex);
  joystickCallbacks.remove_if([=](const auto& slot) { return slot.userdata == userdata; });
  return 0;
}

}  // namespace zq
