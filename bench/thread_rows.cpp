// How the calls of several threads get along on one connection.
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/bench_service.h"
#include "bench/paired.h"
#include "bench/rows.h"
#include "zqbus/zqbus.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 21;
constexpr int kThreads = 4;
constexpr int kCallsOfAllThreads = 800;

void callManyTimes(ZQBusProxyInterface& service, int calls) {
  for (int i = 0; i < calls; ++i) {
    const auto message = service.makeMethodCallMessage("connectDevice");
    message->appendInt32(kDesktopId);
    message->appendUInt16(kDevice);
    if (service.callWithReplyBlocking(message, 3000)->type() != 2) std::abort();
  }
}

/// A side of kCallsOfAllThreads calls, shared out among `count` threads.
Side callsFrom(int count, const std::shared_ptr<ZQBusProxyInterface>& service) {
  const Side all = batchOf(1, [count, service] {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back(callManyTimes, std::ref(*service), kCallsOfAllThreads / count);
    }
    for (std::thread& thread : threads) thread.join();
  });
  return [all] { return all() / kCallsOfAllThreads; };
}

}  // namespace

void addThreadRow(Report& report, double target) {
  const auto service = ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::None, 1);
  if (service == nullptr) throw std::runtime_error("no service");
  const Rounds rounds(kRounds, {callsFrom(kThreads, service), callsFrom(1, service)});
  const bool free = report.placement() == Placement::Free;
  // The ratio of the rates. On one CPU the threads cannot run at the same time.
  report.add({"a bus call, 4 threads on one connection", rounds.median(0), "the same, one thread",
              rounds.median(1), rounds.ratio(1, 0),
              free ? std::optional(Target{Target::Kind::AtLeast, target}) : std::nullopt});
}

}  // namespace zq::bench
