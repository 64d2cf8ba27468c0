#include "service/model/activities.h"

#include <array>
#include <utility>

#include "service/model/wire_records.h"

namespace zq::devservice {
namespace {

struct DiagnosisStep {
  uint32_t percent;
  const char* text;
};
constexpr std::array kDiagnosis = {
    DiagnosisStep{20, "checking the connection"}, DiagnosisStep{40, "checking the drivers"},
    DiagnosisStep{60, "checking the policies"},   DiagnosisStep{80, "measuring the transfer"},
    DiagnosisStep{100, "no fault found"},
};

}  // namespace

Activities::Activities(Desktops& desktops, Devices& devices, Printers& printers, EventSink& events,
                       Timer& timer)
    : desktops_(desktops), devices_(devices), printers_(printers), events_(events), timer_(timer) {}

void Activities::load(const Scenario& scenario) {
  timing_ = scenario.timing;
  commands_ = scenario.commands;
  tests_ = scenario.tests;
}

Result Activities::configureConnect(uint32_t desktopId, const NewDeviceDecision& decision) {
  const Desktop* desktop = desktops_.find(desktopId);
  if (desktop == nullptr) return Result::UnknownDesktop;
  if (!desktop->connected) return Result::DesktopNotConnected;
  const Result possible = devices_.checkDecision(decision);
  if (possible != Result::Done) return possible;
  after(timing_.configuration, [=, this, device = *devices_.findBySource(decision.sourceId)] {
    const Result result = devices_.decideConnect(decision, desktopId);
    reportOutcome(EventKind::ConfiguredConnect, device, result);
  });
  return Result::Done;
}

Result Activities::configureIgnore(const NewDeviceDecision& decision) {
  const Result possible = devices_.checkDecision(decision);
  if (possible != Result::Done) return possible;
  after(timing_.configuration, [=, this, device = *devices_.findBySource(decision.sourceId)] {
    const Result result = devices_.decideIgnore(decision);
    reportOutcome(EventKind::ConfiguredIgnore, device, result);
  });
  return Result::Done;
}

void Activities::reportOutcome(EventKind kind, const Device& device, Result result) {
  const EventKind reported = result == Result::Done ? kind : EventKind::ConfigurationFailed;
  const Device* now = devices_.findBySource(device.sourceId);
  events_.send({now == nullptr ? 0 : now->desktop, reported, outcomeRecord(device, result)});
}

Result Activities::diskCommand(uint32_t desktop, uint64_t sourceId, int32_t command) {
  if (desktop != 0 && desktops_.find(desktop) == nullptr) return Result::UnknownDesktop;
  const Device* device = devices_.findBySource(sourceId);
  if (device == nullptr) return Result::UnknownDevice;
  const Device before = *device;
  const Result result = devices_.diskCommand(sourceId, command);
  events_.send({desktop, EventKind::DiskCommandDone, outcomeRecord(before, result)});
  return result;
}

Result Activities::diagnose(uint32_t desktop, uint64_t sourceId) {
  if (desktops_.find(desktop) == nullptr) return Result::UnknownDesktop;
  if (sourceId != 0 && devices_.findBySource(sourceId) == nullptr) return Result::UnknownDevice;
  after(timing_.diagnosisStep, [=, this] { diagnoseStep(desktop, sourceId, 0); });
  return Result::Done;
}

void Activities::diagnoseStep(uint32_t desktop, uint64_t sourceId, std::size_t step) {
  const auto [percent, text] = kDiagnosis.at(step);
  events_.send(
      {desktop, EventKind::DiagnoseProgress, progressRecord(sourceId, percent, desktop, text)});
  if (step + 1 == kDiagnosis.size()) return;
  after(timing_.diagnosisStep, [=, this] { diagnoseStep(desktop, sourceId, step + 1); });
}

Result Activities::calibrate(VidPid id) {
  for (const Device* joystick : devices_.ofType(DeviceType::Joystick)) {
    if (joystick->id != id) continue;
    after(timing_.calibration, [this, device = *joystick] {
      const bool there = devices_.findBySource(device.sourceId) != nullptr;
      const Result result = there ? Result::Done : Result::UnknownDevice;
      events_.send({device.desktop, EventKind::JoystickCalibrated, outcomeRecord(device, result)});
    });
    return Result::Done;
  }
  return Result::UnknownDevice;
}

Result Activities::print(uint16_t printer, const std::string& document) {
  const Result begun = printers_.beginJob(printer, document);
  if (begun == Result::Done) after(timing_.printJob, [=, this] { printers_.endJob(printer); });
  return begun;
}

Result Activities::runCommand(const std::string& name) {
  for (const PerixCommand& command : commands_) {
    if (command.name != name) continue;
    after(0, [this, record = commandRecord(command.result, command.answer)] {
      events_.send({0, EventKind::CommandResponse, record});
    });
    return Result::Done;
  }
  return Result::UnknownCommand;
}

std::string Activities::commandHelp() const {
  std::string help;
  for (const PerixCommand& command : commands_) help += command.name + "  " + command.help + "\n";
  return help;
}

int32_t Activities::runTest(const std::string& name) const {
  for (const SelfTest& test : tests_) {
    if (test.name == name) return test.result;
  }
  return static_cast<int32_t>(Result::UnknownTest);
}

void Activities::after(int64_t milliseconds, std::function<void()> task) {
  timer_.after(std::chrono::milliseconds(milliseconds), std::move(task));
}

}  // namespace zq::devservice
