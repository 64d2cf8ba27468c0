#include "chaos/trial.h"

#include <future>
#include <latch>
#include <random>
#include <thread>

#include "chaos/witness.h"
#include "tests/support/messages.h"

namespace zq::chaos {
namespace {

// Another run of an operation may get another answer: the printer is deleted by then.
constexpr int kHealthyRuns = 3;
constexpr int kAfter = 100;  // the number of the witness after the fault

using Random = std::minstd_rand;

int64_t drawn(Random& random, int64_t least, int64_t most) {
  return std::uniform_int_distribution<int64_t>(least, most)(random);
}

std::string methodOf(const WireRow& operation) {
  return operation.sends.substr(0, operation.sends.find('('));
}

bool waitsFor(const std::string& kind) {
  return kind == "delay" || kind == "late" || kind == "stop-reading";
}

/// One wait of four lasts longer than the operation's time-out. Only one call times out: the others
/// wait for it, and then are answered while its own answer is on the way.
PlannedFault plan(const Fault& fault, const WireRow& operation, Random& random) {
  PlannedFault planned{fault.kind, fault.effect, drawn(random, fault.least, fault.most), 0};
  if (waitsFor(fault.kind) && operation.timeoutMs > 0 && drawn(random, 1, 4) == 1) {
    planned.effect = Effect::TimedOut;
    planned.value += operation.timeoutMs + 50;
  }
  if (planned.effect == Effect::TimedOut) planned.calls = 1;
  return planned;
}

std::vector<Outcome> healthyOutcomes(const WireRow& operation) {
  std::vector<Outcome> outcomes;
  for (int i = 0; i < kHealthyRuns; ++i) outcomes.push_back(outcomeOf(operation));
  PerixProxy::getInstance()->GetVmIdInt("nowhere");  // is answered behind what does not wait
  return outcomes;
}

struct Testimony {
  Outcome outcome;
  std::string complaint;  ///< the witness's
};

/// All threads run the operation at the same time, and have a witness speak before and after it.
std::vector<Testimony> runOnThreads(const Tried& tried, int threads) {
  const bool mayFail = tried.fault.effect == Effect::Gone || tried.fault.kind == "stop-reading";
  std::latch start(threads);
  std::vector<std::future<Testimony>> running;
  running.reserve(static_cast<std::size_t>(threads));
  for (int number = 1; number <= threads; ++number) {
    running.push_back(std::async(std::launch::async, [&, number] {
      Witness witness(number, tried.usesTurbo());
      Testimony testimony;
      start.arrive_and_wait();
      testimony.complaint = witness.testify(mayFail);
      testimony.outcome = outcomeOf(tried.operation);
      testimony.complaint += witness.testify(mayFail);
      return testimony;
    }));
  }
  std::vector<Testimony> all;
  all.reserve(running.size());
  for (auto& testimony : running) all.push_back(testimony.get());
  return all;
}

int countDeath(uint16_t code, void*, void* deaths) {
  if (code == SERVICE_DIED) static_cast<Watched<int>*>(deaths)->change([](int& all) { ++all; });
  return 0;
}

/// The proxy handles a death on a thread of its own, and until then operations end as Died.
Outcome outcomeAfterwards(const WireRow& operation) {
  const auto deadline = std::chrono::steady_clock::now() + kSlack;
  PerixProxy::getInstance()->GetVmIdInt("nowhere");
  while (PerixLastFailure().failure == PerixFailure::Died &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    PerixProxy::getInstance()->GetVmIdInt("nowhere");
  }
  return outcomeOf(operation);
}

}  // namespace

std::string Trial::run(const NamedWireRow& named) {
  Random random(seedOf(setting_.name() + "/" + named.name, seed_));
  const Tried tried{named.row, methodOf(named.row), plan(setting_.fault, named.row, random)};
  World::control("reset");
  const std::vector<Outcome> healthy = healthyOutcomes(tried.operation);
  World::control("reset");
  if (!first_) {
    World::warmUp();
    first_ = currentHoldings();
  }
  std::string complaint = runUnderFault(tried, healthy);
  if (complaint.empty()) complaint = runAfterwards(tried, healthy.front());
  if (complaint.empty() && tried.endsConnection()) complaint = complaintAboutDeaths();
  if (complaint.empty()) complaint = excessOver(*first_);
  const PlannedFault& fault = tried.fault;
  return complaint.empty()
             ? ""
             : complaint + " (" + fault.kind + " " + std::to_string(fault.value) + ")";
}

std::string Trial::runUnderFault(const Tried& tried, const std::vector<Outcome>& healthy) {
  const auto& [operation, method, fault] = tried;
  World::control("clearCalls");
  if (tried.endsConnection()) {
    deaths_.change([](int& deaths) { deaths = 0; });
    PerixProxy::getInstance()->RegisterCallback("desk-3", &countDeath, &deaths_);
  }
  if (tried.asks()) {
    World::control("setFault", message(method, fault.kind, fault.value, fault.calls));
  }
  std::vector<Outcome> outcomes;
  for (const Testimony& testimony : runOnThreads(tried, setting_.threads)) {
    if (!testimony.complaint.empty()) return testimony.complaint;
    outcomes.push_back(testimony.outcome);
  }
  std::string complaint = complaintAbout(operation, fault, healthy, outcomes);
  if (!complaint.empty() || !tried.asks()) return complaint;
  // A delayed call would change the world of the next operation.
  if (waitsFor(fault.kind)) World::control("awaitCalls", message(method, setting_.threads));
  return fault.effect == Effect::Gone ? "" : complaintAboutCalls(method);
}

/// Every operation has called its method once.
std::string Trial::complaintAboutCalls(const std::string& method) const {
  const std::string calls = World::control("listCalls");
  const std::string call = R"("method":")" + method + '"';
  int received = 0;
  for (std::size_t at = 0; (at = calls.find(call, at)) != std::string::npos; ++at) ++received;
  if (received == setting_.threads) return {};
  return "the service received " + std::to_string(received) + " calls of " + method;
}

/// A callback is told of one death, and removed.
std::string Trial::complaintAboutDeaths() {
  if (deaths_.wait([](int deaths) { return deaths > 0; }) && deaths_.get() == 1) return {};
  return "the desktop was told of " + std::to_string(deaths_.get()) + " deaths";
}

std::string Trial::runAfterwards(const Tried& tried, const Outcome& healthy) {
  std::string complaint = world_.mend(tried.fault.kind == "crash" && tried.asks());
  if (!complaint.empty()) return complaint;
  World::control("reset");
  const Outcome after = outcomeAfterwards(tried.operation);
  if (!(after == healthy)) {
    return "afterwards ended with " + show(after) + ", before with " + show(healthy);
  }
  complaint = Witness(kAfter, tried.usesTurbo()).testify(false);
  return complaint.empty() ? "" : "afterwards: " + complaint;
}

}  // namespace zq::chaos
