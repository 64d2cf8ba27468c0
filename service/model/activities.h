// Work that takes the service some time: configuration of devices, diagnosis, calibration, printing
// and commands. Operations answer at once whether the work has begun; its outcome follows as an
// event.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/model/devices.h"
#include "service/model/printers.h"
#include "service/model/timer.h"

namespace zq::devservice {

class Activities {
 public:
  Activities(Desktops& desktops, Devices& devices, Printers& printers, EventSink& events,
             Timer& timer);

  void load(const Scenario& scenario);

  /// The outcome follows as ConfiguredConnect, or as ConfigurationFailed.
  [[nodiscard]] Result configureConnect(uint32_t desktop, const NewDeviceDecision& decision);
  /// The outcome follows as ConfiguredIgnore, or as ConfigurationFailed.
  [[nodiscard]] Result configureIgnore(const NewDeviceDecision& decision);
  /// Carried out at once; the event DiskCommandDone tells the result to all clients. The desktop
  /// may be 0.
  [[nodiscard]] Result diskCommand(uint32_t desktop, uint64_t sourceId, int32_t command);

  /// Progress follows in five steps up to 100 percent. `sourceId` 0 diagnoses the desktop itself.
  [[nodiscard]] Result diagnose(uint32_t desktop, uint64_t sourceId);
  /// The outcome follows as JoystickCalibrated.
  [[nodiscard]] Result calibrate(VidPid id);
  [[nodiscard]] Result print(uint16_t printer, const std::string& document);

  /// The answer follows as CommandResponse.
  [[nodiscard]] Result runCommand(const std::string& name);
  /// One line per command: its name and what it does.
  std::string commandHelp() const;
  /// The result of the self-test; UnknownTest for an unknown name.
  int32_t runTest(const std::string& name) const;

 private:
  void after(int64_t milliseconds, std::function<void()> task);
  void reportOutcome(EventKind kind, const Device& device, Result result);
  void diagnoseStep(uint32_t desktop, uint64_t sourceId, std::size_t step);

  Desktops& desktops_;
  Devices& devices_;
  Printers& printers_;
  EventSink& events_;
  Timer& timer_;
  Timing timing_;
  std::vector<PerixCommand> commands_;
  std::vector<SelfTest> tests_;
};

}  // namespace zq::devservice
