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
      {perixMethod("getNetworkPrinterList"),
       [&world](const Call&) { return networkPrinters(world); }},
      {perixMethod("addNetworkPrinter"),
       [&world](const Call& call) {
         return world.printers.add(printerAt(call, 0, PrinterOrigin::Network));
       }},
      {perixMethod("deleteNetworkPrinter"),
       [&world](const Call& call) {
         return world.printers.remove(PrinterOrigin::Network, call.text(0));
       }},
      {perixMethod("renameNetworkPrinter"),
       [&world](const Call& call) {
         return world.printers.rename(PrinterOrigin::Network, call.text(0), call.text(1));
       }},
      {perixMethod("searchSharePrinter"),
       [&world](const Call& call) { return searchShared(world, call); }},
      {perixMethod("stopSearchSharePrinter"),
       [&world](const Call&) { return world.search.stop(); }},
      {perixMethod("addSharePrinter"),
       [&world](const Call& call) { return addShared(world, call); }},
      {perixMethod("deleteSharePrinter"),
       [&world](const Call& call) {
         return world.printers.remove(PrinterOrigin::Shared, call.text(1), call.text(0));
       }},
      {perixMethod("searchAllPrinter"),
       [&world](const Call& call) { return summarize(world, call); }},
  };
}

std::vector<Method> localMethods(World& world) {
  PrinterBackend& backend = *world.printerBackend;
  return {
      {perixMethod("getPrinterDriverlList"),
       [&world](const Call& call) { return findDrivers(world, call); }},
      {perixMethod("addPrinter"),
       [&backend](const Call& call) {
         backend.add(call.text(0), call.text(1), call.text(2), call.respond);
         return Answer::later();
       }},
      {perixMethod("autoAddPrinter"),
       [&backend](const Call& call) {
         backend.addAutomatically(call.text(0), call.text(1), call.text(2), call.respond);
         return Answer::later();
       }},
      {perixMethod("deletePrinter"),
       [&backend](const Call& call) {
         backend.remove(call.text(0), call.respond);
         return Answer::later();
       }},
      {perixMethod("changePrinterDriver"),
       [&backend](const Call& call) {
         backend.changeDriver(call.text(0), call.text(1), call.respond);
         return Answer::later();
       }},
      {perixMethod("printTestPage"),
       [&backend](const Call& call) {
         backend.printTestPage(call.text(0), call.respond);
         return Answer::later();
       }},
  };
}

}  // namespace

std::vector<Method> printerMethods(World& world) {
  std::vector<Method> methods = {
      {perixMethod("getPrinterList"),
       [&world](const Call& call) { return printerList(world, call.desktop()); }},
      {perixMethod("getPrinterStatus"),
       [&world](const Call& call) { return printerStatus(world, call.uint16(0)); }},
      {perixMethod("connectPrinter"),
       [&world](const Call& call) {
         return world.printers.connect(call.desktop(), call.uint16(1));
       }},
      {perixMethod("disconnectPrinter"),
       [&world](const Call& call) {
         return world.printers.disconnect(call.desktop(), call.uint16(1));
       }},
      {perixMethod("ConfigPrinterCommand"),
       [&world](const Call& call) { return command(world, call); }},
  };
  for (Method& method : networkAndSharedMethods(world)) methods.push_back(std::move(method));
  for (Method& method : localMethods(world)) methods.push_back(std::move(method));
  return methods;
}

}  // namespace zq::devservice
