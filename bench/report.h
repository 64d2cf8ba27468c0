// The table that a run prints.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

namespace zq::bench {

/// Where the processes of a run are: all on one CPU, or wherever the kernel puts them.
enum class Placement { Pinned, Free };

/// What the ratio of a row must be.
struct Bar {
  enum class Kind { AtMost, AtLeast } kind;
  double ratio;
};

struct Row {
  std::string what;
  double measured;  ///< in microseconds, as is `reference`
  std::string beside;
  double reference;
  double ratio;
  std::optional<Bar> bar;  ///< none for a row that is there to be read with the others
};

/// The table's head, to be printed once.
void printHead(std::FILE* out);

/// Prints the rows of one placement, each as soon as it is there.
class Report {
 public:
  Report(std::FILE* out, Placement placement) : out_(out), placement_(placement) {}

  Placement placement() const { return placement_; }
  void add(const Row& row);

 private:
  std::FILE* out_;
  Placement placement_;
};

}  // namespace zq::bench
