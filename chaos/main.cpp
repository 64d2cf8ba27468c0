// Tries every operation of the proxy under every fault of the development service: on a direct line
// and through the broker, on both brokers, from one thread and from eight. docs/reliability.md
// lists the conditions that each cell must meet.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>

#include "chaos/jobs.h"
#include "chaos/table.h"

namespace zq::chaos {
namespace {

struct CommandLine {
  uint32_t seed = std::random_device()();
  int seconds = 0;
  int atOnce = 16;
  std::string cell;
  std::string tableFile;
  std::string job;
  std::vector<std::string> operations;
};

// A process tries so many cells: few in a sample, so that it meets many settings.
constexpr std::size_t kCellsOfAJob = 12;
constexpr std::size_t kCellsOfASampledJob = 3;

std::vector<Job> shuffledJobs(std::minstd_rand random, std::size_t cellsOfAJob) {
  std::vector<std::string> names;
  for (const NamedWireRow& operation : allOperations()) names.push_back(operation.name);
  std::vector<Job> jobs;
  for (const Setting& setting : allSettings()) {
    std::shuffle(names.begin(), names.end(), random);
    for (std::size_t at = 0; at < names.size(); at += cellsOfAJob) {
      const auto end = std::min(at + cellsOfAJob, names.size());
      jobs.push_back(
          {setting,
           {names.begin() + static_cast<long>(at), names.begin() + static_cast<long>(end)}});
    }
  }
  std::shuffle(jobs.begin(), jobs.end(), random);
  return jobs;
}

std::optional<Job> jobOfCell(const std::string& cell) {
  const auto slash = cell.rfind('/');
  const auto setting = settingOf(cell.substr(0, slash));
  if (!setting || slash == std::string::npos) return std::nullopt;
  return Job{*setting, {cell.substr(slash + 1)}};
}

void show(const Result& result, uint32_t seed) {
  if (result.complaint.empty()) return;
  const std::string cell = result.setting.name() + "/" + result.operation;
  std::printf("FAILED %s: %s\n       scripts/chaos --cell %s --seed %u\n", cell.c_str(),
              result.complaint.c_str(), cell.c_str(), seed);
  std::fflush(stdout);
}

int runMatrix(const CommandLine& line) {
  JobOptions options{line.seed, line.atOnce, std::nullopt};
  if (line.seconds > 0) options.time = std::chrono::seconds(line.seconds);
  std::vector<Job> jobs =
      shuffledJobs(std::minstd_rand(line.seed), options.time ? kCellsOfASampledJob : kCellsOfAJob);
  if (const auto job = jobOfCell(line.cell)) jobs = {*job};
  std::erase_if(jobs, [&](const Job& job) {
    return !(job.setting.name() + "/" + job.operations.front()).starts_with(line.cell);
  });
  if (jobs.empty()) {
    std::fprintf(stderr, "perix_chaos: there is no cell %s\n", line.cell.c_str());
    return 2;
  }
  std::printf("seed %u\n", line.seed);
  std::fflush(stdout);
  Table table;
  runJobs(jobs, options, [&](const Result& result) {
    table.add(result);
    show(result, line.seed);
  });
  std::printf("%s", table.asMarkdown().c_str());
  if (!line.tableFile.empty()) std::ofstream(line.tableFile) << table.asMarkdown();
  return table.run() > 0 && table.failed() == 0 ? 0 : 1;
}

int runJob(const CommandLine& line) {
  JobOptions options{line.seed, 1, std::nullopt};
  if (line.seconds > 0) options.time = std::chrono::seconds(line.seconds);
  const auto setting = settingOf(line.job);
  if (!setting) return 2;
  tryCells({*setting, line.operations}, options);
  return 0;
}

int run(int argc, char** argv) {
  CLI::App app("Tries every operation under every fault of the development service.");
  CommandLine line;
  app.add_option("--seed", line.seed, "The number that everything is drawn from");
  app.add_option("--seconds", line.seconds, "Try a random sample for that long; all without it");
  app.add_option(
      "--cell", line.cell,
      "Try one cell, FAULT/WAY/BROKER/THREADS/OPERATION, or all whose setting begins so");
  app.add_option("--at-once", line.atOnce, "Processes that run at once")
      ->check(CLI::PositiveNumber);
  app.add_option("--table", line.tableFile, "Write the table into this file, too");
  app.add_option("--job", line.job)->group("");
  app.add_option("--operations", line.operations)->delimiter(',')->group("");
  CLI11_PARSE(app, argc, argv);
  return line.job.empty() ? runMatrix(line) : runJob(line);
}

}  // namespace
}  // namespace zq::chaos

int main(int argc, char** argv) {
  return zq::chaos::run(argc, argv);
}
