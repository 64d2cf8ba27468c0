// What a blocking call costs, compared with a bare socket, raw sd-bus and other libraries.
#include <algorithm>
#include <stdexcept>

#include "bench/bench_service.h"
#include "bench/far_end.h"
#include "bench/paired.h"
#include "bench/peer_process.h"
#include "bench/raw_bus.h"
#include "bench/rows.h"
#include "perix/perix_proxy.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 101;
constexpr int kBatch = 50;
constexpr char kWhat[] = "ConnectDevice, id cached, log line";

void connectDevice(PerixProxy& proxy) {
  if (proxy.ConnectDevice(kDesktop, kDevice) != 0) throw std::runtime_error("ConnectDevice failed");
}

/// A row for each peer, and a row with the target, for the best of them.
void addPeerRows(Report& report, const Rounds& rounds, std::size_t first,
                 const std::vector<std::unique_ptr<PeerProcess>>& peers) {
  std::size_t best = first;
  for (std::size_t i = 0; i < peers.size(); ++i) {
    const std::size_t side = first + i;
    const std::string name = peers[i]->name() + " making the same call";
    report.add({kWhat, rounds.median(0), name, rounds.median(side), rounds.ratio(0, side), {}});
    if (rounds.median(side) < rounds.median(best)) best = side;
  }
  if (peers.empty()) return;
  const std::string name = "the best of these peers, " + peers[best - first]->name();
  report.add({kWhat, rounds.median(0), name, rounds.median(best), rounds.ratio(0, best),
              Target{Target::Kind::AtMost, 0.45}});
}

}  // namespace

void addDirectCallRows(Report& report, const std::string& program, sd_bus* bare) {
  const EchoProcess echo;
  PerixProxy& proxy = *PerixProxy::getInstance();
  const auto peers = startPeers(program);
  std::vector<Side> sides = {batchOf(kBatch, [&] { connectDevice(proxy); }),
                             batchOf(kBatch, [&] { echo.pingPong(); }),
                             batchOf(kBatch, [&] { connectDeviceRaw(bare, kRawName, kRawPath); })};
  for (const auto& peer : peers) sides.emplace_back([&peer] { return peer->measure(kBatch); });
  const Rounds rounds(kRounds, sides);
  report.add({kWhat, rounds.median(0), "unix-socket ping-pong of 64 bytes", rounds.median(1),
              rounds.ratio(0, 1), Target{Target::Kind::AtMost, 2}});
  report.add({"  the same by bare sd-bus on a socket pair",
              rounds.median(2),
              "unix-socket ping-pong of 64 bytes",
              rounds.median(1),
              rounds.ratio(2, 1),
              {}});
  addPeerRows(report, rounds, 3, peers);
}

void addBrokerCallRows(Report& report) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const RawBus raw = openRawBus();
  const Rounds rounds(kRounds, {batchOf(kBatch, [&] { connectDevice(proxy); }),
                                batchOf(kBatch, [&] { connectDeviceRaw(raw.get()); })});
  report.add({kWhat, rounds.median(0), "raw sd_bus_call, same daemon", rounds.median(1),
              rounds.ratio(0, 1), Target{Target::Kind::AtMost, 1.15}});
}

}  // namespace zq::bench
