// How an operation ended, and how it should have ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "chaos/cell.h"
#include "perix/failure.h"

namespace zq::chaos {

/// The time that an operation may take beyond its time-outs: this machine runs many cells at once.
inline constexpr std::chrono::seconds kSlack{5};

struct Outcome {
  std::string result;
  PerixFailureReport report;
  std::chrono::steady_clock::duration took{};

  bool operator==(const Outcome& other) const {
    return result == other.result && report.failure == other.report.failure;
  }
};
std::string show(const Outcome& outcome);

/// Runs the operation on this thread, as a client does.
Outcome outcomeOf(const WireRow& operation);

/// A fault with its value, for one operation.
struct PlannedFault {
  std::string kind;
  Effect effect;
  int64_t value;
  int32_t calls;  ///< that meet it; 0 for all
};

/// What is wrong with the outcomes of all threads; empty when nothing. `healthy` holds the outcomes
/// of the same operation without a fault, run several times.
std::string complaintAbout(const WireRow& operation, const PlannedFault& fault,
                           const std::vector<Outcome>& healthy,
                           const std::vector<Outcome>& outcomes);

}  // namespace zq::chaos
