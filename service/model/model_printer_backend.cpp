#include "service/model/model_printer_backend.h"

#include <algorithm>
#include <utility>

namespace zq::devservice {

void ModelPrinterBackend::load(const Scenario& scenario) {
  drivers_ = scenario.drivers;
  timing_ = scenario.timing;
}

void ModelPrinterBackend::findDrivers(const std::string& query, DriversFound done) {
  timer_.after(std::chrono::milliseconds(timing_.summary),
               [found = driversThatFit(drivers_, query), done = std::move(done)] { done(found); });
}

void ModelPrinterBackend::add(const std::string& name, const std::string& address,
                              const std::string& driver, Done done) {
  done(addNow(name, address, driver));
}

void ModelPrinterBackend::addAutomatically(const std::string& name, const std::string& address,
                                           const std::string& driver, Done done) {
  const std::string chosen = driver.empty() && !drivers_.empty() ? drivers_[0].name : driver;
  timer_.after(std::chrono::milliseconds(timing_.printerSetup),
               [=, this, done = std::move(done)] { done(addNow(name, address, chosen)); });
}

Result ModelPrinterBackend::addNow(const std::string& name, const std::string& address,
                                   const std::string& driver) {
  if (!knows(driver)) return Result::UnknownDriver;
  Printer printer;
  printer.name = name;
  printer.address = address;
  printer.driver = driver;
  return printers_.add(std::move(printer));
}

void ModelPrinterBackend::remove(const std::string& name, Done done) {
  done(printers_.remove(PrinterOrigin::Local, name));
}

void ModelPrinterBackend::changeDriver(const std::string& name, const std::string& driver,
                                       Done done) {
  done(knows(driver) ? printers_.setDriver(name, driver) : Result::UnknownDriver);
}

void ModelPrinterBackend::printTestPage(const std::string& name, Done done) {
  const Printer* printer = printers_.find(PrinterOrigin::Local, name);
  const Result begun = printer == nullptr ? Result::UnknownPrinter
                                          : printers_.beginJob(printer->number, "test page");
  if (begun != Result::Done) return done(begun);
  timer_.after(std::chrono::milliseconds(timing_.printJob),
               [this, number = printer->number, done = std::move(done)] {
                 printers_.endJob(number);
                 done(Result::Done);
               });
}

void ModelPrinterBackend::command(uint16_t number, int32_t command, Done done) {
  done(printers_.command(number, command));
}

bool ModelPrinterBackend::knows(const std::string& driver) const {
  return std::any_of(drivers_.begin(), drivers_.end(),
                     [&](const Driver& known) { return known.name == driver; });
}

}  // namespace zq::devservice
