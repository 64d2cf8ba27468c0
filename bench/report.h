// The table that a run prints.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

namespace zq::bench {

/// Where the processes of a run are: all on one CPU, or wherever the kernel puts them.
enum class Placement { Pinned, Free };

/// How client and service speak to each other: over a direct line, or through the bus's broker.
enum class Way { Direct, Broker };

/// What the ratio of a row must be.
struct Target {
  enum class Kind { AtMost, AtLeast } kind;
  double ratio;
};

struct Row {
  std::string what;
  double measured;  ///< in microseconds, as is `reference`
  std::string referenceName;
  double reference;
  double ratio;
  std::optional<Target> target;  ///< without a value, the row only explains another
};

/// The table's head, to be printed once.
void printHead(std::FILE* out);

/// Prints the rows of one placement and one way, each as soon as it is there.
class Report {
 public:
  /// `copy` may be null; else each row is written there too, as a line of fields between tabs.
  Report(std::FILE* out, std::FILE* copy, Placement placement, Way way)
      : out_(out), copy_(copy), placement_(placement), way_(way) {}

  Placement placement() const { return placement_; }
  void add(const Row& row);

 private:
  std::FILE* out_;
  std::FILE* copy_;
  Placement placement_;
  Way way_;
};

}  // namespace zq::bench
