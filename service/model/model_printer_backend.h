// Local printers that exist in the model alone.
#pragma once

#include <string>
#include <vector>

#include "service/model/printer_backend.h"

namespace zq::devservice {

class ModelPrinterBackend : public PrinterBackend {
 public:
  ModelPrinterBackend(Printers& printers, Timer& timer) : printers_(printers), timer_(timer) {}

  void load(const Scenario& scenario) override;
  const std::vector<Driver>& drivers() const override { return drivers_; }

  void findDrivers(const std::string& query, DriversFound done) override;
  void add(const std::string& name, const std::string& address, const std::string& driver,
           Done done) override;
  void addAutomatically(const std::string& name, const std::string& address,
                        const std::string& driver, Done done) override;
  void remove(const std::string& name, Done done) override;
  void changeDriver(const std::string& name, const std::string& driver, Done done) override;
  /// Answers when the job has ended.
  void printTestPage(const std::string& name, Done done) override;
  void command(uint16_t number, int32_t command, Done done) override;

 private:
  bool knows(const std::string& driver) const;
  Result addNow(const std::string& name, const std::string& address, const std::string& driver);

  Printers& printers_;
  Timer& timer_;
  std::vector<Driver> drivers_;
  Timing timing_;
};

}  // namespace zq::devservice
