// What a log line costs, compared with a plain spdlog line of the same length.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <filesystem>

#include "platform/log/log.h"

namespace {

constexpr std::size_t kRotateAt = 10 * 1024 * 1024;
constexpr const char* kDesktop = "6f1d2c1e-7b0a-4d64-9a53-1f3f0a0b7c11";

std::filesystem::path temporaryDirectory() {
  char name[] = "/tmp/perix-log-bench-XXXXXX";
  return ::mkdtemp(name);
}

void APlainSpdlogLine(benchmark::State& state) {
  const auto directory = temporaryDirectory();
  const auto logger = spdlog::rotating_logger_mt("plain", directory / "plain.log", kRotateAt, 2);
  int line = 0;
  for ([[maybe_unused]] auto _ : state) {
    logger->info(R"({} {}({}): "Debug:" "vmId:{}, devNumber: {}")", "perix_proxy_devices",
                 "ConnectDevice", ++line, kDesktop, 7);
  }
  spdlog::drop("plain");
  std::filesystem::remove_all(directory);
}

void ALogLine(benchmark::State& state) {
  const auto directory = temporaryDirectory();
  zq::feroxLogInit(directory.c_str());
  int line = 0;
  for ([[maybe_unused]] auto _ : state) {
    zq::orvaneLogPrint(0, 5, "PERIX_LOG", R"(%s %s(%d): "Debug:" "vmId:%s, devNumber: %d")",
                       "perix_proxy_devices", "ConnectDevice", ++line, kDesktop, 7);
  }
  std::filesystem::remove_all(directory);
}

BENCHMARK(APlainSpdlogLine);
BENCHMARK(ALogLine);

}  // namespace

BENCHMARK_MAIN();
