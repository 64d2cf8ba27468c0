// What it takes to be connected. A process has one connection for its life, so each start that is
// measured is the first thing that a fresh process does, and the process measures it itself.
#include <unistd.h>

#include <stdexcept>

#include "bench/paired.h"
#include "bench/raw_bus.h"
#include "bench/rows.h"
#include "perix/perix_proxy.h"
#include "tools/embedded/child_process.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 61;
constexpr std::chrono::seconds kPatience{10};

Side startOf(const std::string& program, const std::string& side) {
  return [program, side] {
    ChildProcess::Options options;
    options.arguments = {program, "--startup", side};
    options.output = ChildProcess::Stream::Discard;
    options.readiness = true;
    ChildProcess child(options);
    const auto figure = child.readinessLine(kPatience);
    if (child.wait() != 0 || !figure) throw std::runtime_error("no start of: " + side);
    return std::stod(*figure);
  };
}

void startProxy() {
  const PerixProxy* const proxy = PerixProxy::getInstance();
  if (proxy == nullptr) throw std::runtime_error("no proxy");
}

void startRaw() {
  // Kept open: closing it is not part of starting.
  static const RawBus bus = openRawBus();
  askRawOwner(bus.get());
}

}  // namespace

int measureStartup(const std::string& side) {
  const double taken = batchOf(1, side == "proxy" ? startProxy : startRaw)();
  // Proves, outside of the measurement, that it did connect.
  if (side == "proxy" && PerixProxy::getInstance()->ConnectDevice("", 7) != 0) return 1;
  const std::string line = std::to_string(taken) + '\n';
  return ::write(ChildProcess::kReadinessDescriptor, line.data(), line.size()) > 0 ? 0 : 1;
}

void addStartupRow(Report& report, const std::string& program, std::optional<Target> target) {
  const Rounds rounds(kRounds, {startOf(program, "proxy"), startOf(program, "raw")});
  report.add({"first getInstance() to connected", rounds.median(0),
              "opening raw sd-bus, asking for one owner", rounds.median(1), rounds.ratio(0, 1),
              target});
}

}  // namespace zq::bench
