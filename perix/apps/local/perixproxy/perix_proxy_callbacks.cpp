// The callback registries, and calls of all callbacks of a kind.
#include "callback_lock.h"
#include "log_line.h"
#include "no_throw.h"
#include "perix/perix_proxy.h"
#include "platform/text/field.h"

namespace zq {
namespace {

bool eitherIsNull(const void* callback, const void* userdata, LogSite site = here()) {
  if (callback != nullptr && userdata != nullptr) return false;
  PERIX_ERROR_AT(site, "callback or userData is NULL");
  return true;
}

template <typename Callback>
void* address(Callback callback) {
  return reinterpret_cast<void*>(callback);
}

/// Changes the registries once no callback runs. 0; -1 in a forked child and without memory.
template <typename Change>
int change(std::mutex& registries, Change change, LogSite site = here()) try {
  const ProcessLock lock(registries);
  if (lock) {
    change();
    return 0;
  }
  noteNoService("");
  return -1;
} catch (...) {
  return gaveUp("", -1, site);
}

}  // namespace

// --- Calls ---------------------------------------------------------------------------------------

int PerixProxy::DeviceBaseInfoNotify(uint16_t code, CommonDevice* device) {
  const CallbackLock lock(callbackMutex);
  if (!lock) return -1;
  for (const auto& [userdata, callback] : deviceCallbacks) {
    guarded([&, call = callback, data = userdata] { call(code, device, data); });
    PERIX_DEBUG("userdata:%p,devNum:%d, vmId: %d, status:%d, name:%s cmd[%d]", userdata,
                device->devNumber, static_cast<int>(device->vmId), device->status,
                fieldText(device->name).c_str(), code);
  }
  return 0;
}

int PerixProxy::ConfigNewDeviceResultNotify(uint16_t code, _ConfigNewDeviceResult* result) {
  const CallbackLock lock(callbackMutex);
  if (!lock) return -1;
  for (const auto& [userdata, callback] : configResultCallbacks) {
    guarded([&, call = callback, data = userdata] { call(code, result, data); });
    PERIX_DEBUG("userdata:%p,name:%s, code:%s, isSuccess: %d, vid:0x%.4x, pid:%.4x cmd[%d]",
                userdata, fieldText(result->name).c_str(), fieldText(result->code).c_str(),
                result->isSuccess, result->vid, result->pid, code);
  }
  return 0;
}

int PerixProxy::JoystickResultNotify(uint16_t code, void* result) {
  const CallbackLock lock(callbackMutex);
  if (!lock) return -1;
  for (const auto& slot : joystickCallbacks) {
    guarded([&] { slot.callback(code, result, slot.userdata); });
  }
  return 0;
}
// --- Registries ----------------------------------------------------------------------------------

int PerixProxy::RegisterCallback(std::string vmId, DesktopCallback callback, void* userdata) {
  PERIX_DEBUG("registerCallback:vmId:%s callback %p userdata:%p", vmId.c_str(), address(callback),
              userdata);
  const int result = change(callbackMutex, [&] { vmCallbacks[vmId] = {callback, userdata}; });
  PERIX_DEBUG("end");
  return result;
}

int PerixProxy::UnregisterCallback(std::string vmId) {
  PERIX_DEBUG("unregistercallback vmid:%s", vmId.c_str());
  return change(callbackMutex, [&] { vmCallbacks.erase(vmId); });
}

int PerixProxy::RegisterPrinterCallback(PrinterCallback callback, void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  return change(callbackMutex, [&] {
    printerCallback = CallbackSlot<PrinterCallback>{callback, userdata};
  });
}

int PerixProxy::UnregisterPrinterCallback() {
  return change(callbackMutex, [&] { printerCallback = CallbackSlot<PrinterCallback>{}; });
}

void* PerixProxy::CheckPrinterCallback() {
  return printerCallback.load().userdata;
}

int PerixProxy::RegisterDeviceCallback(DeviceCallback callback, void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  PERIX_DEBUG("enter, cb[%p] userData[%p]", address(callback), userdata);
  const int result = change(callbackMutex, [&] {
    deviceCallbacks[userdata] = callback;
    noteFirstDeviceUserdata();
  });
  PERIX_DEBUG("end, cb[%p] userData[%p]", address(callback), userdata);
  return result;
}

int PerixProxy::UnregisterDeviceCallback(void* userdata) {
  PERIX_DEBUG("userData[%p] enter", userdata);
  const int result = change(callbackMutex, [&] {
    deviceCallbacks.erase(userdata);
    noteFirstDeviceUserdata();
  });
  PERIX_DEBUG("userData[%p] end", userdata);
  return result;
}

int PerixProxy::UnregisterDeviceCallback() {
  PERIX_DEBUG("enter");
  const int result = change(callbackMutex, [&] {
    deviceCallbacks.clear();
    noteFirstDeviceUserdata();
  });
  PERIX_DEBUG("end");
  return result;
}

/// Stores the value that CheckDeviceCallback reads without a lock. Under callbackMutex.
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
  const int result = change(callbackMutex, [&] { configResultCallbacks[userdata] = callback; });
  PERIX_DEBUG("enter, cb[%p] userData[%p]", address(callback), userdata);
  return result;
}

int PerixProxy::UnregisterConfigNewDevResultCallback(void* userdata) {
  const int result = change(callbackMutex, [&] { configResultCallbacks.erase(userdata); });
  PERIX_DEBUG("end userData[%p]", userdata);
  return result;
}

int PerixProxy::UnregisterConfigNewDevResultCallback() {
  return change(callbackMutex, [&] { configResultCallbacks.clear(); });
}

int PerixProxy::RegisterJoystickCallback(JoystickCallback callback, void* userdata) {
  if (eitherIsNull(address(callback), userdata)) return -1;
  return change(callbackMutex, [&] {
    for (auto& slot : joystickCallbacks) {
      if (slot.userdata != userdata) continue;
      slot.callback = callback;
      return;
    }
    joystickCallbacks.push_back({callback, userdata});
  });
}

int PerixProxy::UnregisterJoystickCallback(void* userdata) {
  return change(callbackMutex, [&] {
    joystickCallbacks.remove_if([=](const auto& slot) { return slot.userdata == userdata; });
  });
}

}  // namespace zq
