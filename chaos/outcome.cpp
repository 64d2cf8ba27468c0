#include "chaos/outcome.h"

#include <algorithm>

#include "perix/service_values.h"
#include "platform/text/escape.h"

namespace zq::chaos {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kFailures[] = {"None",    "NoService", "Died",       "TimedOut",
                                     "Refused", "TooLarge",  "Unreadable", "NotAsked",
                                     "Forked",  "NoMemory",  "NoBus"};

bool isGone(PerixFailure failure) {
  return failure == PerixFailure::Died || failure == PerixFailure::NoService;
}

bool contains(const std::vector<Outcome>& all, const Outcome& outcome) {
  return std::find(all.begin(), all.end(), outcome) != all.end();
}

bool isFailure(const WireRow& operation, const Outcome& outcome, PerixFailure failure) {
  return outcome.result == operation.failure && outcome.report.failure == failure;
}

/// Whether that is the result for an argument that is missing.
bool isEmpty(const WireRow& operation, const std::string& result) {
  return result == "0" || (result == operation.failure && result != "-1");
}

bool isAllowed(const WireRow& operation, Effect effect, const std::vector<Outcome>& healthy,
               const Outcome& outcome) {
  const bool isSent = outcome.result == healthy.front().result;
  const bool gone = outcome.result == operation.failure && isGone(outcome.report.failure);
  if (operation.sends.empty()) return outcome.result == operation.result;
  if (operation.timeoutMs == kNoWait) {
    // Such an operation may end before the fault, and may have lost the service in a look-up.
    return contains(healthy, outcome) ||
           (effect == Effect::Gone && (gone || (isSent && isGone(outcome.report.failure))));
  }
  switch (effect) {
    case Effect::Answered:
      return contains(healthy, outcome);
    case Effect::Refused:
      return isFailure(operation, outcome, PerixFailure::Refused) &&
             outcome.report.text == "injected fault";
    case Effect::Odd:
      return isEmpty(operation, outcome.result) &&
             outcome.report.failure == PerixFailure::Unreadable;
    case Effect::TimedOut:
      return isFailure(operation, outcome, PerixFailure::TimedOut) || contains(healthy, outcome);
    case Effect::Gone:
      return gone;
  }
  return false;
}

/// The service's answer to a thread while it still does for another thread what both ask for. Calls
/// that it reads together, after it has stopped reading, meet so.
Outcome busy() {
  Outcome outcome;
  outcome.result = std::to_string(static_cast<int>(ServiceResult::Busy));
  return outcome;
}

bool isInTime(const WireRow& operation, const Outcome& outcome) {
  const std::chrono::milliseconds timeout(std::max(operation.timeoutMs, 0));
  const auto known = outcome.report.waiting + outcome.report.lookUps;
  return outcome.took <= timeout + kSlack + (operation.sends.empty() ? known * 0 : known);
}

}  // namespace

std::string show(const Outcome& outcome) {
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(outcome.took);
  return "'" + escaped(outcome.result) + "', " +
         kFailures[static_cast<std::size_t>(outcome.report.failure)] + " \"" + outcome.report.text +
         "\" after " + std::to_string(milliseconds.count()) + " ms";
}

Outcome outcomeOf(const WireRow& operation) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const auto start = Clock::now();
  Outcome outcome;
  outcome.result = operation.run(proxy);
  outcome.took = Clock::now() - start;
  outcome.report = PerixLastFailure();
  return outcome;
}

std::string complaintAbout(const WireRow& operation, const PlannedFault& fault,
                           const std::vector<Outcome>& healthy,
                           const std::vector<Outcome>& outcomes) {
  std::vector<Outcome> expected = healthy;
  if (outcomes.size() > 1) expected.push_back(busy());
  for (const Outcome& outcome : outcomes) {
    if (!isAllowed(operation, fault.effect, expected, outcome)) {
      return "ended with " + show(outcome) + "; without the fault with " + show(healthy.front());
    }
    if (!isInTime(operation, outcome)) return "took too long: " + show(outcome);
  }
  const bool mustTimeOut = fault.effect == Effect::TimedOut && operation.timeoutMs > 0;
  const bool hasTimedOut = std::any_of(outcomes.begin(), outcomes.end(), [](const Outcome& o) {
    return o.report.failure == PerixFailure::TimedOut;
  });
  return mustTimeOut && !hasTimedOut ? "no call timed out" : "";
}

}  // namespace zq::chaos
