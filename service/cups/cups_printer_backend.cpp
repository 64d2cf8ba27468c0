#include "service/cups/cups_printer_backend.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <utility>

namespace zq::devservice {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kAtOnce{0};
constexpr milliseconds kBetweenLooks{2'000};

// Clients wait 3 s for addPrinter and 30 s for autoAddPrinter.
constexpr milliseconds kAddPatience{2'000};
constexpr milliseconds kAutomaticPatience{20'000};

bool speaksIpp(std::string_view address) {
  constexpr std::array<std::string_view, 3> kSchemes = {"ipp://", "ipps://", "dnssd://"};
  return std::any_of(kSchemes.begin(), kSchemes.end(),
                     [address](std::string_view scheme) { return address.starts_with(scheme); });
}

}  // namespace

CupsPrinterBackend::CupsPrinterBackend(const std::string& server, Printers& printers, Timer& timer)
    : server_(server), printers_(printers), timer_(timer) {
  watch();
}

CupsPrinterBackend::~CupsPrinterBackend() {
  server_.giveUp();
  worker_.stop();
}

void CupsPrinterBackend::load(const Scenario&) {
  ++generation_;
  // The scenario has the printers that the server had when the service was started.
  worker_.after(kAtOnce, [this] { bringUpToDate(generation_, [] {}); });
}

void CupsPrinterBackend::watch() {
  worker_.after(kBetweenLooks, [this] {
    bringUpToDate(generation_, [] {});
    watch();
  });
}

void CupsPrinterBackend::bringUpToDate(uint64_t generation, std::function<void()> next) {
  std::vector<Printer> present;
  const bool seen = server_.printers(present) == Result::Done;
  timer_.after(kAtOnce,
               [this, generation, seen, present = std::move(present), next = std::move(next)] {
                 if (generation != generation_) return;
                 if (seen) printers_.setLocal(present);
                 next();
               });
}

void CupsPrinterBackend::ask(Question question, Done done) {
  worker_.after(kAtOnce, [this, generation = generation_.load(), question = std::move(question),
                          done = std::move(done)] {
    const Result result = question(server_);
    bringUpToDate(generation, [result, done] { done(result); });
  });
}

void CupsPrinterBackend::findDrivers(const std::string& query, DriversFound done) {
  worker_.after(kAtOnce, [this, query, generation = generation_.load(), done = std::move(done)] {
    std::vector<Driver> found;
    const bool answered = server_.drivers(found) == Result::Done;
    timer_.after(kAtOnce, [this, answered, query, generation, found = std::move(found), done] {
      if (generation != generation_) return;
      if (answered) drivers_ = found;
      done(driversThatFit(found, query));
    });
  });
}

void CupsPrinterBackend::add(const std::string& name, const std::string& address,
                             const std::string& driver, Done done) {
  ask([=](const CupsServer& server) { return server.add(name, address, driver, kAddPatience); },
      std::move(done));
}

void CupsPrinterBackend::addAutomatically(const std::string& name, const std::string& address,
                                          const std::string& driver, Done done) {
  const std::string chosen = driver.empty() && speaksIpp(address) ? kEverywhere : driver;
  ask(
      [=](const CupsServer& server) {
        return server.add(name, address, chosen, kAutomaticPatience);
      },
      std::move(done));
}

void CupsPrinterBackend::remove(const std::string& name, Done done) {
  ask([=](const CupsServer& server) { return server.remove(name); }, std::move(done));
}

void CupsPrinterBackend::changeDriver(const std::string& name, const std::string& driver,
                                      Done done) {
  ask([=](const CupsServer& server) { return server.setDriver(name, driver); }, std::move(done));
}

void CupsPrinterBackend::printTestPage(const std::string& name, Done done) {
  ask([=](const CupsServer& server) { return server.printTestPage(name); }, std::move(done));
}

void CupsPrinterBackend::command(uint16_t number, int32_t command, Done done) {
  const Printer* printer = printers_.find(number);
  const bool pause = command == static_cast<int32_t>(PrinterCommand::Pause);
  const bool resume = command == static_cast<int32_t>(PrinterCommand::Resume);
  if (printer == nullptr || printer->origin != PrinterOrigin::Local || !(pause || resume)) {
    return done(printers_.command(number, command));
  }
  ask([name = printer->name,
       pause](const CupsServer& server) { return server.setPaused(name, pause); },
      std::move(done));
}

}  // namespace zq::devservice
