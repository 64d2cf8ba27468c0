// The whole model. It is not synchronised: its owner holds one lock around every use, and the timer
// takes that lock around each task.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "service/model/activities.h"
#include "service/model/desktops.h"
#include "service/model/devices.h"
#include "service/model/event_sink.h"
#include "service/model/model.h"
#include "service/model/printer_backend.h"
#include "service/model/printers.h"
#include "service/model/shared_search.h"
#include "service/model/timer.h"

namespace zq::devservice {

/// The settings per vendor and product, and of the camera.
struct Settings {
  std::map<VidPid, int32_t> defaults;    ///< properties as the machine has them
  std::map<VidPid, int32_t> properties;  ///< as clients set them
  std::map<VidPid, std::string> turbo;
  std::map<VidPid, std::string> joystickMappings;
  bool cameraAuthorized = true;
};

/// Printers that exist in the model alone.
std::unique_ptr<PrinterBackend> modelPrinters(Printers& printers, Timer& timer);

/// A timer whose tasks are forgotten when the world they belong to is replaced.
class WorldTimer : public Timer {
 public:
  explicit WorldTimer(Timer& timer) : timer_(timer) {}
  void forgetAll() { ++generation_; }
  void after(std::chrono::milliseconds delay, std::function<void()> task) override;

 private:
  Timer& timer_;
  std::atomic<uint64_t> generation_ = 0;
};

class World {
 public:
  World(EventSink& events, Timer& serviceTimer,
        const PrinterBackendFactory& makePrinterBackend = modelPrinters);

  /// Replaces the world by the scenario's, without an event.
  void load(const Scenario& scenario);
  /// Connects the devices that connect automatically, too.
  [[nodiscard]] Result connectDesktop(uint32_t id, int32_t systemType, int32_t shareMode,
                                      uint32_t connectParam);
  /// Frees the desktop's devices and printers, too.
  [[nodiscard]] Result disconnectDesktop(uint32_t id);
  /// Disconnects every desktop and ends all searches; devices, printers and settings stay.
  void resetSessions();

  WorldTimer timer;
  Desktops desktops;
  Devices devices;
  Printers printers;
  const std::unique_ptr<PrinterBackend> printerBackend;
  SharedSearch search;
  Activities activities;
  Settings settings;
  Timing timing;
  std::size_t tokenLength = 0;  ///< of the drive token; the token itself is not kept
};

}  // namespace zq::devservice
