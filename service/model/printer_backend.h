// The interface to the printers of the user's machine: of the model or of a print server.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "service/model/model.h"
#include "service/model/printers.h"
#include "service/model/timer.h"

namespace zq::devservice {

/// The caller holds the model's lock. An operation does not block; it calls `done` once, now or
/// later, under that lock. When the world is loaded anew, the pending operations are given up:
/// their `done` is destroyed without a call.
class PrinterBackend {
 public:
  using Done = std::function<void(Result)>;
  using DriversFound = std::function<void(const std::vector<Driver>&)>;

  virtual ~PrinterBackend() = default;

  /// The world is loaded anew; its printers have been loaded already.
  virtual void load(const Scenario& scenario) = 0;
  /// The drivers that are known without a question to a server.
  virtual const std::vector<Driver>& drivers() const = 0;

  /// The drivers whose name or maker contains `query`, whatever the case; all for an empty one.
  virtual void findDrivers(const std::string& query, DriversFound done) = 0;
  /// Adds a printer; `driver` must exist.
  virtual void add(const std::string& name, const std::string& address, const std::string& driver,
                   Done done) = 0;
  /// Adds a printer, with a driver of the backend's choice when `driver` is empty.
  virtual void addAutomatically(const std::string& name, const std::string& address,
                                const std::string& driver, Done done) = 0;
  virtual void remove(const std::string& name, Done done) = 0;
  virtual void changeDriver(const std::string& name, const std::string& driver, Done done) = 0;
  /// Prints a page that names the printer.
  virtual void printTestPage(const std::string& name, Done done) = 0;
  /// Carries out a PrinterCommand on any printer, local or not.
  virtual void command(uint16_t number, int32_t command, Done done) = 0;
};

/// Makes the backend of a world, which owns the printers and lives as long as the backend.
using PrinterBackendFactory =
    std::function<std::unique_ptr<PrinterBackend>(Printers& printers, Timer& timer)>;

/// The drivers whose name or maker contains `query`, as in findDrivers().
std::vector<Driver> driversThatFit(const std::vector<Driver>& drivers, const std::string& query);

}  // namespace zq::devservice
