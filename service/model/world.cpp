#include "service/model/world.h"

#include "service/model/model_printer_backend.h"

namespace zq::devservice {

std::unique_ptr<PrinterBackend> modelPrinters(Printers& printers, Timer& timer) {
  return std::make_unique<ModelPrinterBackend>(printers, timer);
}

void WorldTimer::after(std::chrono::milliseconds delay, std::function<void()> task) {
  timer_.after(delay, [this, generation = generation_.load(), task = std::move(task)] {
    if (generation == generation_) task();
  });
}

World::World(EventSink& events, Timer& serviceTimer,
             const PrinterBackendFactory& makePrinterBackend)
    : timer(serviceTimer),
      devices(desktops, events),
      printers(desktops, events),
      printerBackend(makePrinterBackend(printers, timer)),
      search(timer),
      activities(desktops, devices, printers, events, timer) {}

void World::load(const Scenario& scenario) {
  timer.forgetAll();
  desktops.load(scenario.desktops);
  devices.load(scenario);
  printers.load(scenario);
  printerBackend->load(scenario);
  search.load(scenario);
  activities.load(scenario);
  settings = {scenario.properties, scenario.setProperties, scenario.turbo,
              scenario.joystickMappings, scenario.cameraAuthorized};
  timing = scenario.timing;
  tokenLength = 0;
}

Result World::connectDesktop(uint32_t id, int32_t systemType, int32_t shareMode,
                             uint32_t connectParam) {
  const Result result = desktops.connect(id, systemType, shareMode, connectParam);
  if (result == Result::Done) devices.connectAutomatically();
  return result;
}

Result World::disconnectDesktop(uint32_t id) {
  const Result result = desktops.disconnect(id);
  if (result != Result::Done) return result;
  devices.release(id);
  printers.release(id);
  return result;
}

void World::resetSessions() {
  for (const Desktop& desktop : desktops.all()) (void)disconnectDesktop(desktop.id);
  (void)search.stop();
}

}  // namespace zq::devservice
