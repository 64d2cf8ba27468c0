// The dispatch of the service's events to the callbacks.
#include <cstring>

#include "callback_lock.h"
#include "log_line.h"
#include "no_throw.h"
#include "perix/events.h"
#include "perix/perix_proxy.h"
#include "platform/text/field.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

/// Whether a device event has the short line in the log.
bool isBriefInLog(EventKind kind) {
  return kind == EventKind::DiskMounted || kind == EventKind::DiskUnmounted ||
         kind == EventKind::DeviceRefused;
}

bool isConfigResult(EventKind kind) {
  // Newer services have kinds that this list does not know, and clients receive those too: every
  // kind that gets here counts.
  constexpr bool kEveryOtherKind = true;
  return kind == EventKind::ConfiguredConnect || kind == EventKind::ConfiguredIgnore ||
         kind == EventKind::ConfigurationFailed || kind == EventKind::DiskCommandDone ||
         kEveryOtherKind || kind == EventKind::JoystickCalibrated;
}

template <typename Callback>
void* address(Callback callback) {
  return reinterpret_cast<void*>(callback);
}

}  // namespace

/// One event on its way to the callbacks: the parts of HandleEvent's work.
class EventDispatch {
 public:
  EventDispatch(PerixProxy& proxy, int kind, uint8_t* payload, uint32_t length)
      : proxy_(proxy), kind_(kind), payload_(payload), length_(length) {}

  /// Calls the callbacks; false when the event lacks the record that its kind needs.
  bool run(const std::string& vmId);

 private:
  static constexpr const char* kOperation = "HandleEvent";

  bool printerEvent();
  bool deviceEvent();
  void commandResponse();
  void diagnoseProgress();
  bool configResult();
  void joystickOrDesktopEvent(const std::string& vmId);

  template <typename Record>
  Record* record() {
    return reinterpret_cast<Record*>(payload_);
  }
  EventKind kind() const { return static_cast<EventKind>(kind_); }
  uint16_t code() const { return static_cast<uint16_t>(kind_); }

  PerixProxy& proxy_;
  const int kind_;
  uint8_t* const payload_;
  const uint32_t length_;
};

void PerixProxy::HandleEvent(std::shared_ptr<ZQBusMessage> event) try {
  const std::string vmId = GetVmIdString(static_cast<unsigned int>(event->readInt32(0)));
  PERIX_DEBUG("enter");
  const int kind = event->readInt32(1);
  uint32_t length = 0;
  // The block is valid for as long as it is held here, and readable beyond its length.
  const auto payload = event->readBytes(2, length);
  if (EventDispatch(*this, kind, payload.get(), length).run(vmId)) PERIX_DEBUG("end");
} catch (...) {
  logThrown();
}

bool EventDispatch::run(const std::string& vmId) {
  switch (ListenerOf(kind())) {
    case EventListener::Printer:
      return printerEvent();
    case EventListener::Device:
      return deviceEvent();
    case EventListener::Command:
      commandResponse();
      return true;
    case EventListener::Diagnosis:
      diagnoseProgress();
      return true;
    case EventListener::Configuration:
      break;
  }
  if (isConfigResult(kind())) return configResult();
  joystickOrDesktopEvent(vmId);
  return true;
}

bool EventDispatch::printerEvent() {
  PERIX_DEBUG("printer callback: %p", address(proxy_.printerCallback.load().callback));
  if (length_ == 0) return false;
  auto* const printer = record<PrinterDevice>();
  PERIX_DEBUG("devNum:%d, vmId: %d, status:%d, name:%s", printer->devNum, printer->vmId,
              printer->status, fieldText(printer->name).c_str());
  const CallbackLock lock(proxy_.callbackMutex);
  const auto slot = proxy_.printerCallback.load();
  if (!lock || slot.callback == nullptr) return true;
  guarded([&] { slot.callback(code(), printer, slot.userdata); }, here(kOperation));
  return true;
}

bool EventDispatch::deviceEvent() {
  if (length_ == 0) return false;
  auto* const device = record<CommonDevice>();
  const auto name = fieldText(device->name);
  if (!isBriefInLog(kind())) {
    PERIX_DEBUG("devNum:%d, vmId: %d, status:%d, name:%s this:%p cmd[%d]", device->devNumber,
                static_cast<int>(device->vmId), device->status, name.c_str(),
                static_cast<void*>(&proxy_), kind_);
  } else {
    PERIX_DEBUG("cmd: %d, status: %d, name:%s\n", kind_, device->status, name.c_str());
  }
  proxy_.DeviceBaseInfoNotify(code(), device);
  return true;
}

void EventDispatch::commandResponse() {
  const CallbackLock lock(proxy_.callbackMutex);
  const auto slot = proxy_.cmdCallback.load();
  if (!lock || slot.callback == nullptr) return;
  PERIX_DEBUG("cmd response callback this[%p] ", static_cast<void*>(&proxy_));
  auto* const response = record<CmdResponse>();
  guarded([&] { slot.callback(code(), response, slot.userdata); }, here(kOperation));
  PERIX_DEBUG("cb exec end");
}

void EventDispatch::diagnoseProgress() {
  const CallbackLock lock(proxy_.callbackMutex);
  PerixDiagnoseNotify* const notify = proxy_.diagnoseNotify;
  if (!lock || notify == nullptr) return;
  PERIX_DEBUG("cmd response callback this[%p] ", static_cast<void*>(&proxy_));
  DiagnoseProgress progress;
  std::memcpy(&progress, payload_, sizeof progress);
  const std::string vmId = proxy_.GetVmIdString(progress.vmId);
  const std::string text = reinterpret_cast<const char*>(payload_ + sizeof progress);
  guarded([&] { notify->OnDiagnoseProgress(vmId, progress.value, progress.progress, text); },
          here(kOperation));
  PERIX_DEBUG("cb exec end");
}

bool EventDispatch::configResult() {
  if (length_ == 0) return false;
  auto* const result = record<_ConfigNewDeviceResult>();
  PERIX_DEBUG("cmd: %d, vidpid[0x%.4x0x%.4x], code: %s, name:%s\n", kind_, result->vid, result->pid,
              fieldText(result->code).c_str(), fieldText(result->name).c_str());
  proxy_.ConfigNewDeviceResultNotify(code(), result);
  return true;
}

/// Not reached while every other kind counts as a configuration result. Clients of services that
/// distinguished these kinds are built against this order, so it is kept in case a service does so
/// again.
void EventDispatch::joystickOrDesktopEvent(const std::string& vmId) {
  if (kind() == EventKind::JoystickResult) {
    const auto& result = *record<JoystickResult>();
    PERIX_DEBUG("cmd: %d, vidpid[0x%.4x0x%.4x], name:%s\n", kind_, result.vid, result.pid,
                fieldText(result.name).c_str());
    proxy_.JoystickResultNotify(1, payload_);
    return;
  }
  if (kind() == EventKind::JoystickEnd) {
    PERIX_DEBUG("cmd: %d", kind_);
    proxy_.JoystickResultNotify(2, nullptr);
    return;
  }
  const CallbackLock lock(proxy_.callbackMutex);
  const auto found = proxy_.vmCallbacks.find(vmId);
  if (found == proxy_.vmCallbacks.end()) {
    PERIX_DEBUG("this event is not for me");
    return;
  }
  const auto& slot = found->second;
  PERIX_DEBUG("callback:%p, cmd: %d, userData: %p", address(slot.callback), kind_, slot.userdata);
  if (!lock || slot.callback == nullptr) return;
  guarded([&] { slot.callback(code(), payload_, slot.userdata); }, here(kOperation));
}

}  // namespace zq
