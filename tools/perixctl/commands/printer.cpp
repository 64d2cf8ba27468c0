// printer: lists, connecting, network, shared and local printers.
#include <list>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"

namespace zq {
namespace {

Outcome listPrinters(Call& call) {
  PerixProxy& proxy = call.proxy();
  const auto printers = proxy.GetPrinterList(call.desktop());
  requireAnswer();
  return printerTable(proxy, printers);
}

Outcome printerStatus(Call& call) {
  PerixProxy& proxy = call.proxy();
  const auto printers = proxy.GetPrinterStatus(call.arguments.number<uint16_t>("NUMBER"));
  requireAnswer();
  if (printers.empty()) {
    throw CommandError(ExitCode::NotFound, "no printer " + call.arguments.text("NUMBER"));
  }
  return printerTable(proxy, printers);
}

Outcome listNetworkPrinters(Call& call) {
  PerixProxy& proxy = call.proxy();
  const auto printers = proxy.GetNetworkPrinterList();
  requireAnswer();
  return deviceTable(proxy, printers);
}

int addNetworkPrinter(Call& call) {
  const Arguments& arguments = call.arguments;
  const std::string address = arguments.text("ADDRESS");
  if (!arguments.has("NAME")) return call.proxy().AddNetworkPrinter(address.c_str());
  return call.proxy().AddNetworkPrinter(address, arguments.text("NAME"),
                                        arguments.text("DESCRIPTION"));
}

Outcome searchSharedPrinters(Call& call) {
  std::list<_SharePrinterDevice> printers;
  requireDone(call.proxy().SearchSharePrinterDevice(call.arguments.text("HOST"), printers));
  Json rows = Json::array();
  for (const _SharePrinterDevice& printer : printers) {
    rows.push_back({{"name", textIn(printer.name)},
                    {"address", textIn(printer.addr)},
                    {"description", textIn(printer.desc)}});
  }
  return tableOf(std::move(rows),
                 {{"name", "NAME"}, {"address", "ADDRESS"}, {"description", "DESCRIPTION"}});
}

_SharePrinterDevice sharedPrinter(Call& call) {
  _SharePrinterDevice printer{};
  call.arguments.text("NAME").copy(printer.name, sizeof(printer.name) - 1);
  call.arguments.text("ADDRESS").copy(printer.addr, sizeof(printer.addr) - 1);
  call.arguments.text("DESCRIPTION").copy(printer.desc, sizeof(printer.desc) - 1);
  return printer;
}

int addSharedPrinter(Call& call) {
  std::list<_SharePrinterDevice> printers{sharedPrinter(call)};
  return call.proxy().AddSharePrinterDevice(printers);
}

int deleteSharedPrinter(Call& call) {
  _SharePrinterDevice printer = sharedPrinter(call);
  return call.proxy().DeleteSharePrinterDevice(printer);
}

// Texts that the service answers in JSON are shown as such.
Outcome serviceDocument(const std::string& text) {
  requireAnswer();
  Json document = Json::parse(text, nullptr, false);
  return document.is_discarded() ? textOf(text) : documentOf(std::move(document));
}

using LocalPrinterOperation = int (PerixProxy::*)(const std::string&, const std::string&,
                                                  const std::string&);

int applyToLocalPrinter(Call& call, LocalPrinterOperation operation) {
  return (call.proxy().*operation)(call.arguments.text("NAME"), call.arguments.text("ADDRESS"),
                                   call.arguments.text("DRIVER"));
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
       status([](Call& call) {
         return call.proxy().ConnectPrinter(call.desktop(),
                                            call.arguments.number<uint16_t>("NUMBER"));
       })},
      {"printer disconnect",
       {desktopArgument(), kNumber},
       "Take a printer out of a desktop",
       status([](Call& call) {
         return call.proxy().DisconnectPrinter(call.desktop(),
                                               call.arguments.number<uint16_t>("NUMBER"));
       })},
      {"printer command",
       {desktopArgument(),
        sourceArgument(),
        {"COMMAND", ArgumentKind::UInt16, "The command, the service's number"}},
       "Send a command for a desktop's printer",
       status([](Call& call) {
         return call.proxy().ConfigPrinterCommand(call.desktop(),
                                                  call.arguments.number<uint64_t>("SOURCE"),
                                                  call.arguments.number<uint16_t>("COMMAND"));
       })},
      {"printer summary",
       {},
       "Show a summary of all printers",
       [](Call& call) { return serviceDocument(call.proxy().SearchAllPrinter()); }},
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
      {"printer network delete", {kName}, "Delete a network printer", status([](Call& call) {
         return call.proxy().DeleteNetworkPrinter(call.arguments.text("NAME"));
       })},
      {"printer network rename",
       {{"OLD", ArgumentKind::Name, "Its name so far"},
        {"NEW", ArgumentKind::Name, "Its new name"}},
       "Rename a network printer",
       status([](Call& call) {
         return call.proxy().RenameNetworkPrinter(call.arguments.text("OLD"),
                                                  call.arguments.text("NEW"));
       })},
      {"printer shared search",
       {{"HOST", ArgumentKind::Host, "The host to search, as in 10.0.0.5"}},
       "Search a host for shared printers",
       searchSharedPrinters},
      {"printer shared stop", {}, "Stop a search", status([](Call& call) {
         return call.proxy().StopSearchSharePrinterDevice();
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
       status([](Call& call) { return applyToLocalPrinter(call, &PerixProxy::AddLocalPrinter); })},
      {"printer local auto-add",
       {kName, kAddress, kDriver},
       "Add a printer of this machine, the service choosing what it can",
       status([](Call& call) { return applyToLocalPrinter(call, &PerixProxy::AutoAddPrinter); })},
      {"printer local delete", {kName}, "Delete a printer of this machine", status([](Call& call) {
         return call.proxy().DeletePrinter(call.arguments.text("NAME"));
       })},
      {"printer driver list",
       {{"QUERY", ArgumentKind::Text, "What to look for; everything without it",
         Presence::Optional}},
       "List printer drivers",
       [](Call& call) {
         return serviceDocument(call.proxy().GetPrinterDriverlList(call.arguments.text("QUERY")));
       }},
      {"printer driver change",
       {kName, kDriver},
       "Change a printer's driver",
       status([](Call& call) {
         return call.proxy().ChangePrinterDriver(call.arguments.text("NAME"),
                                                 call.arguments.text("DRIVER"));
       })},
      {"printer test-page", {kName}, "Print a test page", status([](Call& call) {
         return call.proxy().PrintTestPage(call.arguments.text("NAME"));
       })},
  };
}

}  // namespace

std::vector<Command> printerCommands() {
  return joined({redirectionCommands(), networkCommands(), localCommands()});
}

}  // namespace zq
