// Many cells at once, in processes of their own: most of their time, cells only wait.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "chaos/cell.h"

namespace zq::chaos {

/// Cells of one setting, which one process tries on one bus.
struct Job {
  Setting setting;
  std::vector<std::string> operations;
};

struct Result {
  Setting setting;
  std::string operation;
  std::string complaint;  ///< empty when the cell passed
};

struct JobOptions {
  uint32_t seed = 0;
  int atOnce = 1;
  std::optional<std::chrono::seconds> time;  ///< no cell begins that may last longer
};

/// Tries all jobs; `onResult` is called for each cell that was tried, by one thread at a time.
void runJobs(std::vector<Job> jobs, const JobOptions& options,
             const std::function<void(const Result&)>& onResult);

/// The other end: tries the operations of a job in this process, and tells the results to the
/// process that runs the jobs. The first failure ends it.
void tryCells(const Job& job, const JobOptions& options);

}  // namespace zq::chaos
