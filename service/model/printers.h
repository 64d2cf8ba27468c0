// The printers of the user's machine, of the network, and of hosts that share them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "service/model/desktops.h"
#include "service/model/event_sink.h"
#include "service/model/model.h"

namespace zq::devservice {

/// Names are unique among the local printers and among the network printers; a shared printer is
/// known by address and name. Changes are announced as in Devices.
class Printers {
 public:
  Printers(const Desktops& desktops, EventSink& events) : desktops_(desktops), events_(events) {}

  void load(const Scenario& scenario);

  /// By number.
  const std::map<uint16_t, Printer>& all() const { return printers_; }
  /// The printers of a desktop; all printers for desktop 0, which stands for the user's machine.
  std::vector<const Printer*> of(uint32_t desktop) const;
  const Printer* find(uint16_t number) const;
  /// `address` counts for shared printers only. Null for an unknown printer.
  const Printer* find(PrinterOrigin origin, const std::string& name,
                      const std::string& address = "") const;

  [[nodiscard]] Result connect(uint32_t desktop, uint16_t number);
  [[nodiscard]] Result disconnect(uint32_t desktop, uint16_t number);
  void release(uint32_t desktop);

  [[nodiscard]] Result add(Printer printer);
  /// Adds all printers or none.
  [[nodiscard]] Result addAll(const std::vector<Printer>& printers);
  [[nodiscard]] Result remove(PrinterOrigin origin, const std::string& name,
                              const std::string& address = "");
  [[nodiscard]] Result rename(PrinterOrigin origin, const std::string& name,
                              const std::string& newName);
  [[nodiscard]] Result setDriver(const std::string& name, const std::string& driver);
  /// Makes `present` the local printers. Their status is Idle, Paused or Printing; an Idle printer
  /// that is connected counts as Connected. Printers that were there before keep their numbers and
  /// desktops.
  void setLocal(const std::vector<Printer>& present);
  [[nodiscard]] Result command(uint16_t number, int32_t command);

  /// Begins and ends a job. Busy while another job prints or the printer is paused.
  [[nodiscard]] Result beginJob(uint16_t number, const std::string& document);
  void endJob(uint16_t number);

 private:
  Printer* edit(uint16_t number);
  Result check(const Printer& printer) const;
  void update(Printer& printer, const Printer& present);
  void setStatus(Printer& printer, PrinterStatus status);
  void announce(const Printer& printer);
  uint16_t freeNumber() const;

  const Desktops& desktops_;
  EventSink& events_;
  std::map<uint16_t, Printer> printers_;
};

}  // namespace zq::devservice
