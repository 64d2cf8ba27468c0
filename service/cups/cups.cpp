#include "service/cups/cups.h"

#include <memory>
#include <vector>

#include "service/cups/cups_printer_backend.h"
#include "service/cups/cups_server.h"

namespace zq::devservice {

bool useCups(const std::string& server, Scenario& scenario, PrinterBackendFactory& backend,
             std::string& error) {
  std::vector<Printer> present;
  if (CupsServer(server).printers(present) != Result::Done) {
    error = "no CUPS server answers at " + CupsServer::nameOf(server);
    return false;
  }
  std::erase_if(scenario.printers,
                [](const Printer& p) { return p.origin == PrinterOrigin::Local; });
  scenario.printers.insert(scenario.printers.end(), present.begin(), present.end());
  scenario.drivers.clear();
  backend = [server](Printers& printers, Timer& timer) {
    return std::make_unique<CupsPrinterBackend>(server, printers, timer);
  };
  return true;
}

}  // namespace zq::devservice
