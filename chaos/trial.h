// The trial of one cell.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "chaos/cell.h"
#include "chaos/holdings.h"
#include "chaos/outcome.h"
#include "chaos/world.h"
#include "tests/support/watched.h"

namespace zq::chaos {

/// An operation and its fault.
struct Tried {
  const WireRow& operation;
  std::string method;  ///< empty for an operation that refuses to ask
  PlannedFault fault;

  bool asks() const { return !method.empty(); }
  bool endsConnection() const { return asks() && fault.effect == Effect::Gone; }
  /// Whether the witnesses keep their texts as turbo settings, whose methods work then.
  bool usesTurbo() const { return method.find("Turbo") == std::string::npos; }
};

/// Tries operations in one setting, one after the other, in a process of its own.
class Trial {
 public:
  Trial(const Setting& setting, uint32_t seed) : setting_(setting), seed_(seed), world_(setting) {}

  /// Says what went wrong; empty when nothing. No further operation may be tried then.
  std::string run(const NamedWireRow& operation);

 private:
  std::string runUnderFault(const Tried& tried, const std::vector<Outcome>& healthy);
  std::string complaintAboutCalls(const std::string& method) const;
  std::string runAfterwards(const Tried& tried, const Outcome& healthy);
  std::string complaintAboutDeaths();

  const Setting setting_;
  const uint32_t seed_;
  World world_;
  Watched<int> deaths_;            ///< that a desktop's callback was told of in this cell
  std::optional<Holdings> first_;  ///< after the first operation without a fault
};

}  // namespace zq::chaos
