// Numbers that a client leaves for the script while it runs: a row of a file that both have mapped.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zq::load {

/// The numbers of one client. Shared pages: they do not count as the client's own memory.
class Figures {
 public:
  static constexpr std::size_t kColumns = 128;

  /// Maps row `row` of the file, which has at least `row` + 1 rows of kColumns 64-bit numbers; it
  /// stays mapped until the process ends. Throws std::runtime_error.
  Figures(const std::string& file, std::size_t row);

  std::atomic<int64_t>& operator[](std::size_t column) const { return row_[column]; }

 private:
  std::atomic<int64_t>* row_;
};

/// The machine's monotonic clock, which all processes share.
int64_t nanosecondsNow();

}  // namespace zq::load
