// printer: lists, connecting, network, shared and local printers.
#include <algorithm>
#include <list>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/service_words.h"

namespace zq::ctl {
namespace {

Outcome listPrinters(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto printers = proxy.GetPrinterList(run.desktop());
  requireAnswer();
  return printerTable(proxy, printers);
}

Outcome printerStatus(Run& run) {
  const uint16_t number = run.printerNumber();
  PerixProxy& proxy = run.proxy();
  const auto printers = proxy.GetPrinterStatus(number);
  requireAnswer();
  if (printers.empty()) {
    throw CommandError(ExitCode::NotFound, "no printer " + std::to_string(number));
  }
  return printerTable(proxy, printers);
}

// Today's service takes a printer's number for its source id.
int commandPrinter(Run& run) {
  const auto number = parseNumber<uint64_t>(run.arguments.text("PRINTER"));
  const uint64_t source = number ? *number : run.printerNumber();
  return run.proxy().ConfigPrinterCommand(run.desktop(), source,
                                          run.arguments.number<uint16_t>("COMMAND"));
}

Outcome listNetworkPrinters(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto printers = proxy.GetNetworkPrinterList();
  requireAnswer();
  return deviceTable(proxy, printers);
}

int addNetworkPrinter(Run& run) {
  const Arguments& arguments = run.arguments;
  const std::string address = arguments.text("ADDRESS");
  if (!arguments.has("NAME")) return run.proxy().AddNetworkPrinter(address.c_str());
  return run.proxy().AddNetworkPrinter(address, arguments.text("NAME"),
                                       arguments.text("DESCRIPTION"));
}

// The process ends early, and the service need not search on. The proxy of the search is waiting
// for it, so another asks.
void stopSearch() {
  PerixProxy other;
  if (other.Init() == 0) other.StopSearchSharePrinterDevice();
}

Outcome searchSharedPrinters(Run& run) {
  std::list<_SharePrinterDevice> printers;
  run.proxy();
  run.earlyEnd.before(stopSearch);
  const int result = run.proxy().SearchSharePrinterDevice(run.arguments.text("HOST"), printers);
  run.earlyEnd.forgetLatest();
  requireDone(result);
  Json rows = Json::array();
  for (const _SharePrinterDevice& printer : printers) {
    rows.push_back({{"name", textIn(printer.name)},
                    {"address", textIn(printer.addr)},
                    {"description", textIn(printer.desc)}});
  }
  return tableOf(std::move(rows),
                 {{"name", "NAME"}, {"address", "ADDRESS"}, {"description", "DESCRIPTION"}});
}

_SharePrinterDevice sharedPrinter(Run& run) {
  _SharePrinterDevice printer{};
  setField(printer.name, run.arguments.text("NAME"));
  setField(printer.addr, run.arguments.text("ADDRESS"));
  return printer;
}

int addSharedPrinter(Run& run) {
  std::list<_SharePrinterDevice> printers{sharedPrinter(run)};
  setField(printers.front().desc, run.arguments.text("DESCRIPTION"));
  return run.proxy().AddSharePrinterDevice(printers);
}

int deleteSharedPrinter(Run& run) {
  _SharePrinterDevice printer = sharedPrinter(run);
  return run.proxy().DeleteSharePrinterDevice(printer);
}

// The list that the service answers with in JSON as a table; a text of any other form stays as it
// is.
Outcome serviceList(const std::string& text, const char* list, std::vector<Column> columns) {
  requireAnswer();
  Json document = parsedText(text);
  if (document.is_discarded()) return textOf(text);
  const Json rows = document.is_object() ? document.value(list, Json()) : Json();
  const bool isTable =
      rows.is_array() &&
      std::all_of(rows.begin(), rows.end(), [](const Json& row) { return row.is_object(); });
  if (!isTable) return documentOf(std::move(document));
  return tableOf(rows, std::move(columns));
}

Outcome summarizePrinters(Run& run) {
  return serviceList(run.proxy().SearchAllPrinter(), "printers",
                     {{"number", "NUMBER"},
                      {"name", "NAME"},
                      {"origin", "ORIGIN"},
                      {"status", "STATUS"},
                      {"driver", "DRIVER"},
                      {"address", "ADDRESS"}});
}

Outcome listDrivers(Run& run) {
  return serviceList(run.proxy().GetPrinterDriverlList(run.arguments.text("QUERY")), "drivers",
                     {{"name", "NAME"}, {"maker", "MAKER"}});
}

using LocalPrinterOperation = int (PerixProxy::*)(const std::string&, const std::string&,
                                                  const std::string&);

int applyToLocalPrinter(Run& run, LocalPrinterOperation operation) {
  return (run.proxy().*operation)(run.arguments.text("NAME"), run.arguments.text("ADDRESS"),
                                  run.arguments.text("DRIVER"));
}

const Argument kName{"NAME", ArgumentKind::PrinterName, "The printer's name"};
const Argument kAddress{"ADDRESS", ArgumentKind::Name, "The printer's address", Presence::Required,
                        {},        "10.0.0.7"};
const Argument kDescription{"DESCRIPTION", ArgumentKind::Text, "Free text", Presence::Optional};
const Argument kDriver{"DRIVER", ArgumentKind::Driver, "The driver's name"};

std::vector<Command> redirectionCommands() {
  return {
      {"printer list", {optionalDesktopArgument()}, "List the printers of a desktop", listPrinters},
      {"printer status", {printerArgument()}, "Show one printer", printerStatus},
      {"printer connect",
       {desktopArgument(), printerArgument()},
       "Connect a printer into a desktop",
       status([](Run& run) {
         return run.proxy().ConnectPrinter(run.desktop(), run.printerNumber());
       })},
      {"printer disconnect",
       {desktopArgument(), printerArgument()},
       "Take a printer out of a desktop",
       status([](Run& run) {
         return run.proxy().DisconnectPrinter(run.desktop(), run.printerNumber());
       })},
      {"printer command",
       {desktopArgument(),
        printerArgument(),
        {.name = "COMMAND",
         .kind = ArgumentKind::Word,
         .help = "The command",
         .words = kPrinterCommands}},
       "Send a command for a desktop's printer",
       status(commandPrinter)},
      {"printer summary", {}, "Show a summary of all printers", summarizePrinters},
  };
}

std::vector<Command> networkCommands() {
  return {
      {"printer network list", {}, "List the network printers", listNetworkPrinters},
      {"printer network add",
       {kAddress,
        {"NAME", ArgumentKind::Name, "The printer's name; a default one without it",
         Presence::Optional},
        kDescription},
       "Add a network printer",
       status(addNetworkPrinter)},
      {"printer network delete", {kName}, "Delete a network printer", status([](Run& run) {
         return run.proxy().DeleteNetworkPrinter(run.arguments.text("NAME"));
       })},
      {"printer network rename",
       {{"OLD", ArgumentKind::PrinterName, "Its name so far"},
        {"NEW", ArgumentKind::Name, "Its new name"}},
       "Rename a network printer",
       status([](Run& run) {
         return run.proxy().RenameNetworkPrinter(run.arguments.text("OLD"),
                                                 run.arguments.text("NEW"));
       })},
      {"printer shared search",
       {{"HOST", ArgumentKind::Host, "The host to search, as in 10.0.0.5"}},
       "Search a host for shared printers",
       searchSharedPrinters},
      {"printer shared stop", {}, "Stop a search", status([](Run& run) {
         return run.proxy().StopSearchSharePrinterDevice();
       })},
      {"printer shared add",
       {kAddress, kName, kDescription},
       "Keep a shared printer",
       status(addSharedPrinter)},
      {"printer shared delete",
       {kAddress, kName},
       "Forget a shared printer",
       status(deleteSharedPrinter)},
  };
}

std::vector<Command> localCommands() {
  return {
      {"printer local add",
       {kName, kAddress, kDriver},
       "Add a printer of this machine",
       status([](Run& run) { return applyToLocalPrinter(run, &PerixProxy::AddLocalPrinter); })},
      {"printer local auto-add",
       {kName, kAddress, kDriver},
       "Add a printer of this machine, with the service's choice of a driver",
       status([](Run& run) { return applyToLocalPrinter(run, &PerixProxy::AutoAddPrinter); })},
      {"printer local delete", {kName}, "Delete a printer of this machine", status([](Run& run) {
         return run.proxy().DeletePrinter(run.arguments.text("NAME"));
       })},
      {"printer driver list",
       {{"QUERY", ArgumentKind::Text, "A part of the names; all drivers without it",
         Presence::Optional}},
       "List printer drivers",
       listDrivers},
      {"printer driver change", {kName, kDriver}, "Change a printer's driver", status([](Run& run) {
         return run.proxy().ChangePrinterDriver(run.arguments.text("NAME"),
                                                run.arguments.text("DRIVER"));
       })},
      {"printer test-page", {kName}, "Print a test page", status([](Run& run) {
         return run.proxy().PrintTestPage(run.arguments.text("NAME"));
       })},
  };
}

}  // namespace

std::vector<Command> printerCommands() {
  return joined({redirectionCommands(), networkCommands(), localCommands()});
}

}  // namespace zq::ctl
