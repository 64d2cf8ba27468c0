// The events of the service, and where they go.
#pragma once

#include <cstdint>

#include "zqbus/message.h"

namespace zq::devservice {

enum class EventKind : int32_t {
  Printer = 1,        ///< a printer came, went or changed
  DeviceState = 4,    ///< a device was connected, disconnected or changed
  DeviceRefused = 5,  ///< an automatic connection was refused
  DeviceArrived = 6,
  DeviceRemoved = 7,
  DiagnoseProgress = 9,
  NewDevice = 10,          ///< a new device waits for its configuration
  ConfiguredConnect = 11,  ///< the outcome of a configuration: connected
  ConfiguredIgnore = 12,   ///< ... ignored
  ConfigurationFailed = 13,
  DiskCommandDone = 14,
  JoystickResult = 16,
  DiskMounted = 64,
  DiskUnmounted = 65,
  CommandResponse = 66,
};

struct Event {
  uint32_t desktop = 0;
  EventKind kind;
  ZQBusBytes payload;
};

/// Takes events to the clients, in order. Neither operation blocks.
class EventSink {
 public:
  virtual ~EventSink() = default;
  virtual void send(const Event& event) = 0;
  virtual void broadcast(const Event& event) = 0;
};

}  // namespace zq::devservice
