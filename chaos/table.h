// The table of a run of the matrix.
#pragma once

#include <map>
#include <string>

#include "chaos/jobs.h"

namespace zq::chaos {

class Table {
 public:
  void add(const Result& result);
  int run() const { return total_.run; }
  int failed() const { return total_.failed; }
  /// A row for each fault and way, a column for each broker and number of threads, in Markdown.
  std::string asMarkdown() const;

 private:
  struct Count {
    int run = 0;
    int failed = 0;
  };
  std::map<std::string, Count> counts_;  ///< by the name of the setting
  Count total_;
};

}  // namespace zq::chaos
