// What looks after the printers of the user's machine.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "service/model.h"
#include "service/result.h"

namespace zq::devservice {

/// Operations answer through `done`, once, now or later, under the model's lock; none blocks.
class PrinterBackend {
 public:
  using Done = std::function<void(Result)>;
  using DriversFound = std::function<void(const std::vector<Driver>&)>;

  virtual ~PrinterBackend() = default;

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
  /// Answers when the page is printed.
  virtual void printTestPage(const std::string& name, Done done) = 0;
};

}  // namespace zq::devservice
