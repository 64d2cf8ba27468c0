// printer: lists, connecting, network, shared and local printers.
#include <list>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"

namespace zq::ctl {
namespace {

Outcome listPrinters(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto printers = proxy.GetPrinterList(run.desktop());
  requireAnswer();
  return printerTable(proxy, printers);
}

Outcome printerStatus(Run& run) {
  PerixProxy& proxy = run.proxy();
  const auto printers = proxy.GetPrinterStatus(run.arguments.number<uint16_t>("NUMBER"));
  requireAnswer();
  if (printers.empty()) {
    throw CommandError(ExitCode::NotFound, "no printer " + run.arguments.text("NUMBER"));
  }
  return printerTable(proxy, printers);
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

Outcome searchSharedPrinters(Run& run) {
  std::list<_SharePrinterDevice> printers;
  requireDone(run.proxy().SearchSharePrinterDevice(run.arguments.text("HOST"), printers));
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

// Texts that the service answers in JSON are shown as such.
Outcome serviceDocument(const std::string& text) {
  requireAnswer();
  Json document = Json::parse(text, nullptr, false);
  return document.is_discarded() ? textOf(text) : documentOf(std::move(document));
}

using LocalPrinterOperation = int (PerixProxy::*)(const std::string&, const std::string&,
                                                  const std::string&);

int applyToLocalPrinter(Run& run, LocalPrinterOperation operation) {
  return (run.proxy().*operation)(run.arguments.text("NAME"), run.arguments.text("ADDRESS"),
                                  run.arguments.text("DRIVER"));
}

const Argument kNumber{"NUMBER", ArgumentKind::UInt16, "The printer's number"};
const Argument kName{"NAME", ArgumentKind::Name, "The printer's name"};
const Argument kAddress{"ADDRESS", ArgumentKind::Name, "The printer's address"};
const Argument kDescription{"DESCRIPTION", ArgumentKind::Text, "Free text", Presence::Optional};
const Argument kDriver{"DRIVER", ArgumentKind::Text, "The driver's name"};

std::vector<Command> redirectionCommands() {
  return {
      {"printer list", {optionalDesktopArgument()}, "List the printers of a desktop", listPrinters},
      {"printer status", {kNumber}, "Show one printer", printerStatus},
      {"printer connect",
       {desktopArgument(), kNumber},
       "Connect a printer into a desktop",
       status([](Run& run) {
         return run.proxy().ConnectPrinter(run.desktop(), run.arguments.number<uint16_t>("NUMBER"));
       })},
      {"printer disconnect",
       {desktopArgument(), kNumber},
       "Take a printer out of a desktop",
       status([](Run& run) {
         return run.proxy().DisconnectPrinter(run.desktop(),
                                              run.arguments.number<uint16_t>("NUMBER"));
       })},
      {"printer command",
       {desktopArgument(),
        sourceArgument(),
        {"COMMAND", ArgumentKind::UInt16, "The command, the service's number"}},
       "Send a command for a desktop's printer",
       status([](Run& run) {
         return run.proxy().ConfigPrinterCommand(run.desktop(),
                                                 run.arguments.number<uint64_t>("SOURCE"),
                                                 run.arguments.number<uint16_t>("COMMAND"));
       })},
      {"printer summary",
       {},
       "Show a summary of all printers",
       [](Run& run) { return serviceDocument(run.proxy().SearchAllPrinter()); }},
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
       {{"OLD", ArgumentKind::Name, "Its name so far"},
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
       "Add a printer of this machine, the service choosing what it can",
       status([](Run& run) { return applyToLocalPrinter(run, &PerixProxy::AutoAddPrinter); })},
      {"printer local delete", {kName}, "Delete a printer of this machine", status([](Run& run) {
         return run.proxy().DeletePrinter(run.arguments.text("NAME"));
       })},
      {"printer driver list",
       {{"QUERY", ArgumentKind::Text, "What to look for; everything without it",
         Presence::Optional}},
       "List printer drivers",
       [](Run& run) {
         return serviceDocument(run.proxy().GetPrinterDriverlList(run.arguments.text("QUERY")));
       }},
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
