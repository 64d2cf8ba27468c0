#include <string>
#include <utility>

#include "service/bus/methods.h"
#include "service/model/wire_records.h"
#include "service/scenario/state.h"

namespace zq::devservice {
namespace {

Answer printerList(const World& world, uint32_t desktop) {
  if (desktop != 0 && world.desktops.find(desktop) == nullptr) {
    return Answer::error("there is no desktop " + std::to_string(desktop));
  }
  std::vector<ZQBusBytes> records;
  for (const Printer* printer : world.printers.of(desktop)) {
    records.push_back(printerRecord(*printer));
  }
  return Answer::records(records);
}

Answer printerStatus(const World& world, uint16_t number) {
  const Printer* printer = world.printers.find(number);
  if (printer == nullptr) return Answer::records({});
  return Answer::records({printerRecord(*printer)});
}

Answer networkPrinters(const World& world) {
  std::vector<ZQBusBytes> records;
  for (const auto& [number, printer] : world.printers.all()) {
    if (printer.origin == PrinterOrigin::Network) records.push_back(networkPrinterRecord(printer));
  }
  return Answer::records(records);
}

/// A printer whose address, name and description are the arguments from `first` on.
Printer printerAt(const Call& call, std::size_t first, PrinterOrigin origin) {
  Printer printer;
  printer.origin = origin;
  printer.address = call.text(first);
  printer.name = call.text(first + 1);
  printer.description = call.text(first + 2);
  return printer;
}

Answer addShared(World& world, const Call& call) {
  std::vector<Printer> printers;
  for (std::size_t i = 1; i < call.message.argCount(); i += 3) {
    printers.push_back(printerAt(call, i, PrinterOrigin::Shared));
  }
  if (static_cast<int64_t>(printers.size()) != call.int32(0)) return Result::InvalidArgument;
  return world.printers.addAll(printers);
}

Answer found(const std::string& address, const std::vector<SharedPrinter>& printers) {
  ZQBusMessage reply;
  reply.appendInt32(static_cast<int32_t>(Result::Done));
  reply.appendInt32(static_cast<int32_t>(printers.size()));
  for (const SharedPrinter& printer : printers) {
    reply.appendString(address);
    reply.appendString(printer.name);
    reply.appendString(printer.description);
  }
  return Answer::of(std::move(reply));
}

Answer searchShared(World& world, const Call& call) {
  world.search.start(call.text(0), [address = call.text(0), respond = call.respond](
                                       Result result, const std::vector<SharedPrinter>& printers) {
    respond(result == Result::Done ? found(address, printers) : Answer(result));
  });
  return Answer::later();
}

Answer command(World& world, const Call& call) {
  const uint64_t number = call.block64(1);
  if (number > UINT16_MAX) return Result::UnknownPrinter;
  world.printerBackend->command(static_cast<uint16_t>(number), call.int32(2), call.respond);
  return Answer::later();
}

Answer summarize(World& world, const Call& call) {
  world.timer.after(std::chrono::milliseconds(world.timing.summary),
                    [&world, respond = call.respond] {
                      respond(Answer::text(asText({{"printers", printersAsJson(world)}})));
                    });
  return Answer::later();
}

Answer findDrivers(World& world, const Call& call) {
  world.printerBackend->findDrivers(
      call.text(0), [respond = call.respond](const std::vector<Driver>& drivers) {
        respond(Answer::text(asText({{"drivers", driversAsJson(drivers)}})));
      });
  return Answer::later();
}

std::vector<Method> networkAndSharedMethods(World& world) {
  return {
      {"getNetworkPrinterList", "", "count:i record:ay",
       [&world](const Call&) { return networkPrinters(world); }},
      {"addNetworkPrinter", "address:s name:s description:s", "result:i",
       [&world](const Call& call) {
         return world.printers.add(printerAt(call, 0, PrinterOrigin::Network));
       }},
      {"deleteNetworkPrinter", "name:s", "result:i",
       [&world](const Call& call) {
         return world.printers.remove(PrinterOrigin::Network, call.text(0));
       }},
      {"renameNetworkPrinter", "name:ay newName:ay", "result:i",
       [&world](const Call& call) {
         return world.printers.rename(PrinterOrigin::Network, call.text(0), call.text(1));
       }},
      {"searchSharePrinter", "address:s", "result:i count:i address:s name:s description:s",
       [&world](const Call& call) { return searchShared(world, call); }},
      {"stopSearchSharePrinter", "", "result:i",
       [&world](const Call&) { return world.search.stop(); }},
      {"addSharePrinter", "count:i *address:s name:s description:s", "result:i",
       [&world](const Call& call) { return addShared(world, call); }},
      {"deleteSharePrinter", "address:s name:s", "result:i",
       [&world](const Call& call) {
         return world.printers.remove(PrinterOrigin::Shared, call.text(1), call.text(0));
       }},
      {"searchAllPrinter", "", "printers:s",
       [&world](const Call& call) { return summarize(world, call); }},
  };
}

std::vector<Method> localMethods(World& world) {
  PrinterBackend& backend = *world.printerBackend;
  return {
      {"getPrinterDriverlList", "query:s", "drivers:s",
       [&world](const Call& call) { return findDrivers(world, call); }},
      {"addPrinter", "name:s address:s driver:s", "result:i",
       [&backend](const Call& call) {
         backend.add(call.text(0), call.text(1), call.text(2), call.respond);
         return Answer::later();
       }},
      {"autoAddPrinter", "name:s address:s driver:s", "result:i",
       [&backend](const Call& call) {
         backend.addAutomatically(call.text(0), call.text(1), call.text(2), call.respond);
         return Answer::later();
       }},
      {"deletePrinter", "name:s", "result:i",
       [&backend](const Call& call) {
         backend.remove(call.text(0), call.respond);
         return Answer::later();
       }},
      {"changePrinterDriver", "name:s driver:s", "result:i",
       [&backend](const Call& call) {
         backend.changeDriver(call.text(0), call.text(1), call.respond);
         return Answer::later();
       }},
      {"printTestPage", "name:s", "result:i",
       [&backend](const Call& call) {
         backend.printTestPage(call.text(0), call.respond);
         return Answer::later();
       }},
  };
}

}  // namespace

std::vector<Method> printerMethods(World& world) {
  std::vector<Method> methods = {
      {"getPrinterList", "desktop:i", "count:i record:ay",
       [&world](const Call& call) { return printerList(world, call.desktop()); }},
      {"getPrinterStatus", "printer:q", "count:i record:ay",
       [&world](const Call& call) { return printerStatus(world, call.uint16(0)); }},
      {"connectPrinter", "desktop:i printer:q", "result:i",
       [&world](const Call& call) {
         return world.printers.connect(call.desktop(), call.uint16(1));
       }},
      {"disconnectPrinter", "desktop:i printer:q", "result:i",
       [&world](const Call& call) {
         return world.printers.disconnect(call.desktop(), call.uint16(1));
       }},
      {"ConfigPrinterCommand", "desktop:i sourceId:ay command:i", "result:i",
       [&world](const Call& call) { return command(world, call); }},
  };
  for (Method& method : networkAndSharedMethods(world)) methods.push_back(std::move(method));
  for (Method& method : localMethods(world)) methods.push_back(std::move(method));
  return methods;
}

}  // namespace zq::devservice
