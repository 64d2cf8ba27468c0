#include "service/model/printers.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "service/model/wire_records.h"

namespace zq::devservice {
namespace {

PrinterStatus restingStatus(const Printer& printer) {
  return printer.desktop == 0 ? PrinterStatus::Idle : PrinterStatus::Connected;
}

}  // namespace

void Printers::load(const Scenario& scenario) {
  printers_.clear();
  for (const bool numbered : {true, false}) {
    for (Printer printer : scenario.printers) {
      if ((printer.number != 0) != numbered) continue;
      if (!numbered) printer.number = freeNumber();
      printers_.emplace(printer.number, printer);
    }
  }
}

std::vector<const Printer*> Printers::of(uint32_t desktop) const {
  std::vector<const Printer*> found;
  for (const auto& [number, printer] : printers_) {
    if (desktop == 0 || printer.desktop == desktop) found.push_back(&printer);
  }
  return found;
}

const Printer* Printers::find(uint16_t number) const {
  const auto found = printers_.find(number);
  return found == printers_.end() ? nullptr : &found->second;
}

Printer* Printers::edit(uint16_t number) {
  const auto found = printers_.find(number);
  return found == printers_.end() ? nullptr : &found->second;
}

const Printer* Printers::find(PrinterOrigin origin, const std::string& name,
                              const std::string& address) const {
  for (const auto& [number, printer] : printers_) {
    if (printer.origin != origin || printer.name != name) continue;
    if (origin != PrinterOrigin::Shared || printer.address == address) return &printer;
  }
  return nullptr;
}

Result Printers::connect(uint32_t desktopId, uint16_t number) {
  const Desktop* desktop = desktops_.find(desktopId);
  Printer* printer = edit(number);
  if (desktop == nullptr) return Result::UnknownDesktop;
  if (printer == nullptr) return Result::UnknownPrinter;
  if (!desktop->connected) return Result::DesktopNotConnected;
  if (printer->desktop == desktopId) return Result::AlreadyConnected;
  if (printer->desktop != 0) return Result::ConnectedElsewhere;
  printer->desktop = desktopId;
  setStatus(*printer, PrinterStatus::Connected);
  return Result::Done;
}

Result Printers::disconnect(uint32_t desktop, uint16_t number) {
  Printer* printer = edit(number);
  if (desktops_.find(desktop) == nullptr) return Result::UnknownDesktop;
  if (printer == nullptr) return Result::UnknownPrinter;
  if (printer->desktop != desktop) return Result::NotConnectedHere;
  printer->desktop = 0;
  setStatus(*printer, PrinterStatus::Idle);
  return Result::Done;
}

void Printers::release(uint32_t desktop) {
  for (auto& [number, printer] : printers_) {
    if (printer.desktop != desktop) continue;
    printer.desktop = 0;
    setStatus(printer, PrinterStatus::Idle);
  }
}

Result Printers::check(const Printer& printer) const {
  if (printer.name.empty() || printer.name.size() > kPrinterNameLimit) {
    return Result::InvalidArgument;
  }
  if (find(printer.origin, printer.name, printer.address) != nullptr) return Result::AlreadyExists;
  return freeNumber() == 0 ? Result::NoFreeNumber : Result::Done;
}

Result Printers::add(Printer printer) {
  const Result possible = check(printer);
  if (possible != Result::Done) return possible;
  printer.number = freeNumber();
  const uint16_t number = printer.number;
  announce(printers_.emplace(number, std::move(printer)).first->second);
  return Result::Done;
}

Result Printers::addAll(const std::vector<Printer>& printers) {
  for (const Printer& printer : printers) {
    const Result possible = check(printer);
    if (possible != Result::Done) return possible;
  }
  for (const Printer& printer : printers) {
    // The list may name a printer twice; then the second entry exists already.
    const Result added = add(printer);
    if (added != Result::Done && added != Result::AlreadyExists) return added;
  }
  return Result::Done;
}

Result Printers::remove(PrinterOrigin origin, const std::string& name, const std::string& address) {
  const Printer* printer = find(origin, name, address);
  if (printer == nullptr) return Result::UnknownPrinter;
  Printer gone = *printer;
  printers_.erase(gone.number);
  gone.desktop = 0;
  gone.status = PrinterStatus::Idle;
  announce(gone);
  return Result::Done;
}

Result Printers::rename(PrinterOrigin origin, const std::string& name, const std::string& newName) {
  const Printer* printer = find(origin, name);
  if (printer == nullptr) return Result::UnknownPrinter;
  Printer renamed = *printer;
  renamed.name = newName;
  const Result possible = check(renamed);
  if (possible != Result::Done) return possible;
  printers_[renamed.number] = renamed;
  announce(renamed);
  return Result::Done;
}

Result Printers::setDriver(const std::string& name, const std::string& driver) {
  const Printer* printer = find(PrinterOrigin::Local, name);
  if (printer == nullptr) return Result::UnknownPrinter;
  printers_[printer->number].driver = driver;
  return Result::Done;
}

void Printers::setLocal(const std::vector<Printer>& present) {
  std::vector<std::string> gone;
  for (const auto& [number, printer] : printers_) {
    const bool stays =
        std::any_of(present.begin(), present.end(),
                    [&known = printer](const auto& p) { return p.name == known.name; });
    if (printer.origin == PrinterOrigin::Local && !stays) gone.push_back(printer.name);
  }
  for (const std::string& name : gone) (void)remove(PrinterOrigin::Local, name);
  for (const Printer& printer : present) {
    const Printer* known = find(PrinterOrigin::Local, printer.name);
    if (known != nullptr) {
      update(printers_[known->number], printer);
    } else {
      (void)add(printer);  // fails when no number is free, or the name is too long for a record
    }
  }
}

void Printers::update(Printer& printer, const Printer& present) {
  printer.address = present.address;
  printer.driver = present.driver;
  printer.description = present.description;
  const PrinterStatus status =
      present.status == PrinterStatus::Idle ? restingStatus(printer) : present.status;
  if (printer.status != status) setStatus(printer, status);
}

Result Printers::command(uint16_t number, int32_t command) {
  Printer* printer = edit(number);
  if (printer == nullptr) return Result::UnknownPrinter;
  switch (static_cast<PrinterCommand>(command)) {
    case PrinterCommand::Pause:
      setStatus(*printer, PrinterStatus::Paused);
      return Result::Done;
    case PrinterCommand::Resume:
      setStatus(*printer, restingStatus(*printer));
      return Result::Done;
  }
  return Result::InvalidArgument;
}

Result Printers::beginJob(uint16_t number, const std::string& document) {
  Printer* printer = edit(number);
  if (printer == nullptr) return Result::UnknownPrinter;
  const bool rests = printer->status == restingStatus(*printer);
  if (!rests) return Result::Busy;
  printer->document = document;
  setStatus(*printer, PrinterStatus::Printing);
  return Result::Done;
}

void Printers::endJob(uint16_t number) {
  Printer* printer = edit(number);
  if (printer == nullptr) return;
  printer->document.clear();
  if (printer->status == PrinterStatus::Printing) setStatus(*printer, restingStatus(*printer));
}

void Printers::setStatus(Printer& printer, PrinterStatus status) {
  printer.status = status;
  announce(printer);
}

void Printers::announce(const Printer& printer) {
  events_.send({printer.desktop, EventKind::Printer, printerRecord(printer)});
}

uint16_t Printers::freeNumber() const {
  uint32_t candidate = 1;
  while (printers_.count(static_cast<uint16_t>(candidate)) != 0) ++candidate;
  return candidate > std::numeric_limits<uint16_t>::max() ? 0 : static_cast<uint16_t>(candidate);
}

}  // namespace zq::devservice
