// Two sides measured in turns, so that whatever else the machine does meets both alike.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zq::bench {

/// Measures one side once: microseconds for one operation, the mean of a batch as a rule.
using Side = std::function<double()>;

/// A side that makes `operation` `batch` times, back to back, between two looks at the clock.
Side batchOf(int batch, std::function<void()> operation);

/// Rounds in each of which every side was measured once, the sides in turns: forwards in one
/// round, backwards in the next, so that none is always the one that finds the caches warm.
class Rounds {
 public:
  /// Measures on the calling thread, one round unrecorded first. What a side throws comes through.
  Rounds(int count, const std::vector<Side>& sides);

  /// The median of one side over all rounds, in microseconds.
  double median(std::size_t side) const;
  /// The median of what `value` makes of each round (the figures of its sides, in their order).
  double median(const std::function<double(const std::vector<double>&)>& value) const;
  /// The median of the rounds' ratios of a side to another.
  double ratio(std::size_t side, std::size_t reference) const;

 private:
  std::vector<std::vector<double>> rounds_;
};

}  // namespace zq::bench
