#include "chaos/jobs.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

#include "chaos/trial.h"
#include "tools/embedded/child_process.h"

namespace zq::chaos {
namespace {

using Clock = std::chrono::steady_clock;

// A cell of the longest time-out, 30 s, lasts for two of them at most; a process that tells
// nothing for so long hangs.
constexpr std::chrono::seconds kLongestCell{180};
constexpr std::chrono::seconds kStart{3};
constexpr std::chrono::seconds kEnd{20};

// A line of a process: one of these words, the operation, and after kFailed the complaint.
constexpr char kBegins[] = "begins";
constexpr char kPassed[] = "passed";
constexpr char kFailed[] = "failed";

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
  return text;
}

std::string takeWord(std::string& line) {
  std::string word = line.substr(0, line.find(' '));
  line.erase(0, std::min(line.size(), word.size() + 1));
  return word;
}

class Jobs {
 public:
  Jobs(std::vector<Job> jobs, const JobOptions& options,
       const std::function<void(const Result&)>& onResult)
      : jobs_(jobs.begin(), jobs.end()), options_(options), onResult_(onResult) {
    if (options.time) deadline_ = Clock::now() + *options.time;
  }

  /// Tries one job after the other, on each of several threads.
  void work() {
    while (auto job = next()) run(*job);
  }

 private:
  std::optional<Job> next() {
    const std::lock_guard lock(mutex_);
    if (jobs_.empty() || Clock::now() + kStart > deadline_) return std::nullopt;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    return job;
  }

  void run(const Job& job) {
    ChildProcess process(optionsOf(job));
    std::vector<std::string> left = job.operations;
    std::string begun;
    bool hasFailed = false;
    while (auto line = process.readinessLine(kLongestCell)) {
      const std::string word = takeWord(*line);
      const std::string operation = takeWord(*line);
      begun = word == kBegins ? operation : "";
      std::erase(left, operation);
      hasFailed = word == kFailed;
      if (word != kBegins) tell({job.setting, operation, hasFailed ? *line : ""});
    }
    const std::string badEnd = badEndOf(process);
    if (!badEnd.empty()) {
      // A process may also fail before its first cell, between two cells and after its last.
      if (begun.empty()) begun = left.empty() ? job.operations.back() : left.front();
      std::erase(left, begun);
      tell({job.setting, begun, badEnd});
    }
    if (hasFailed || !badEnd.empty()) tryLater({job.setting, left});
  }

  /// Says how a process ended that hangs or dies; empty for one that ends by itself.
  static std::string badEndOf(ChildProcess& process) {
    constexpr int kKilled = 128 + SIGKILL;
    const int status = process.finish(kEnd).status;
    if (status == 0) return {};
    return status == kKilled ? "no outcome"
                             : "the process ended with status " + std::to_string(status);
  }

  void tryLater(const Job& job) {
    const std::lock_guard lock(mutex_);
    if (!job.operations.empty()) jobs_.push_front(job);
  }

  ChildProcess::Options optionsOf(const Job& job) const {
    ChildProcess::Options options;
    options.arguments = {
        "/proc/self/exe",       "--job",  job.setting.name(),           "--operations",
        joined(job.operations), "--seed", std::to_string(options_.seed)};
    if (options_.time) {
      const auto left = std::chrono::duration_cast<std::chrono::seconds>(deadline_ - Clock::now());
      options.arguments.insert(options.arguments.end(),
                               {"--seconds", std::to_string(std::max<long>(left.count(), 1))});
    }
    options.output = ChildProcess::Stream::Discard;
    options.readiness = true;
    return options;
  }

  void tell(const Result& result) {
    const std::lock_guard lock(mutex_);
    onResult_(result);
  }

  std::mutex mutex_;
  std::deque<Job> jobs_;
  const JobOptions options_;
  const std::function<void(const Result&)> onResult_;
  Clock::time_point deadline_ = Clock::time_point::max();
};

std::string complaintOf(Trial& trial, const NamedWireRow& operation) try {
  return trial.run(operation);
} catch (const std::exception& error) {
  return error.what();
}

void tell(const std::string& word, const std::string& operation, std::string complaint = {}) {
  std::replace(complaint.begin(), complaint.end(), '\n', ' ');
  const std::string line = word + " " + operation + " " + complaint + "\n";
  [[maybe_unused]] const auto written =
      ::write(ChildProcess::kReadinessDescriptor, line.data(), line.size());
}

}  // namespace

void runJobs(std::vector<Job> jobs, const JobOptions& options,
             const std::function<void(const Result&)>& onResult) {
  Jobs all(std::move(jobs), options, onResult);
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(options.atOnce));
  for (int i = 0; i < options.atOnce; ++i) threads.emplace_back([&all] { all.work(); });
  for (std::thread& thread : threads) thread.join();
}

void tryCells(const Job& job, const JobOptions& options) {
  const auto deadline = options.time ? Clock::now() + *options.time : Clock::time_point::max();
  Trial trial(job.setting, options.seed);
  for (const NamedWireRow& operation : allOperations()) {
    const auto& wanted = job.operations;
    if (std::find(wanted.begin(), wanted.end(), operation.name) == wanted.end()) continue;
    const std::chrono::milliseconds wait(std::max(operation.row.timeoutMs, 0));
    if (Clock::now() > deadline - kStart - wait) continue;
    tell(kBegins, operation.name);
    const std::string complaint = complaintOf(trial, operation);
    tell(complaint.empty() ? kPassed : kFailed, operation.name, complaint);
    if (!complaint.empty()) return;
  }
}

}  // namespace zq::chaos
