// What a trace adds to a blocking call: while it is written, and when it is over.
#include <cstdlib>
#include <stdexcept>

#include "bench/bench_service.h"
#include "bench/paired.h"
#include "bench/rows.h"
#include "perix/perix_proxy.h"
#include "zqbus/trace.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 101;
constexpr int kBatch = 50;

Side callsOf(PerixProxy& proxy) {
  return batchOf(kBatch, [&proxy] {
    if (proxy.ConnectDevice(kDesktop, kDevice) != 0) throw std::runtime_error("ConnectDevice");
  });
}

void addRow(Report& report, const std::string& what, const std::vector<Side>& sides,
            std::optional<Target> target) {
  const Rounds rounds(kRounds, sides);
  report.add({what, rounds.median(0), "the same, connected without a trace", rounds.median(1),
              rounds.ratio(0, 1), target});
}

}  // namespace

void addTraceRows(Report& report) {
  PerixProxy& plain = *PerixProxy::getInstance();
  PerixProxy traced;
  std::string error;
  if (!startZQBusTrace(std::string(std::getenv("XDG_STATE_HOME")) + "/trace", error) ||
      traced.Init() != 0) {
    throw std::runtime_error("no trace: " + error);
  }
  const std::vector<Side> sides = {callsOf(traced), callsOf(plain)};
  addRow(report, "ConnectDevice, traced to a file", sides, {});
  stopZQBusTrace();
  addRow(report, "ConnectDevice, its trace off again", sides, Target{Target::Kind::AtMost, 1.02});
}

}  // namespace zq::bench
