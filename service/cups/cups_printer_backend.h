// Local printers that a CUPS server looks after.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "service/cups/cups_server.h"
#include "service/model/printer_backend.h"
#include "service/model/scheduler.h"

namespace zq::devservice {

/// A thread of the backend asks the server one question after the other. The model's local printers
/// are brought up to date with the server after every operation and every two seconds.
class CupsPrinterBackend : public PrinterBackend {
 public:
  /// `server` as CupsServer takes it.
  CupsPrinterBackend(const std::string& server, Printers& printers, Timer& timer);
  ~CupsPrinterBackend() override;

  /// Questions from before the load get no answer.
  void load(const Scenario& scenario) override;
  /// The drivers that the server named last.
  const std::vector<Driver>& drivers() const override { return drivers_; }

  void findDrivers(const std::string& query, DriversFound done) override;
  void add(const std::string& name, const std::string& address, const std::string& driver,
           Done done) override;
  /// Printers that speak IPP get "everywhere"; for others a driver must be named.
  void addAutomatically(const std::string& name, const std::string& address,
                        const std::string& driver, Done done) override;
  void remove(const std::string& name, Done done) override;
  void changeDriver(const std::string& name, const std::string& driver, Done done) override;
  /// Answers when the server has taken the page.
  void printTestPage(const std::string& name, Done done) override;
  void command(uint16_t number, int32_t command, Done done) override;

 private:
  using Question = std::function<Result(const CupsServer&)>;

  /// Asks on the worker's thread, brings the printers up to date and answers with the result.
  void ask(Question question, Done done);
  /// On the worker's thread: gives the model the server's present printers, then does `next`, both
  /// under the model's lock. Does neither when the world was loaded anew since `generation`.
  void bringUpToDate(uint64_t generation, std::function<void()> next);
  void watch();

  CupsServer server_;
  Printers& printers_;
  Timer& timer_;
  std::vector<Driver> drivers_;
  std::atomic<uint64_t> generation_ = 0;  ///< of the world; changes under the model's lock
  Scheduler worker_;
};

}  // namespace zq::devservice
