// Measures the product's operations beside what they are made of, on a private bus:
//
//   perix_bench                     both placements
//   perix_bench --place PLACEMENT   one: pinned or free
//
// The other options are how the program starts itself in its other roles.
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string_view>

#include "bench/bench_service.h"
#include "bench/rows.h"
#include "tools/embedded/private_bus.h"

namespace zq::bench {
namespace {

constexpr std::chrono::seconds kPatience{10};

std::string thisProgram() {
  return std::filesystem::read_symlink("/proc/self/exe").string();
}

/// A log directory for this run, and everything it started, alone.
class StateDirectory {
 public:
  StateDirectory() {
    char pattern[] = "/tmp/perix-bench-XXXXXX";
    path_ = ::mkdtemp(pattern);
    ::setenv("XDG_STATE_HOME", path_.c_str(), 1);
  }
  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;
  ~StateDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

 private:
  std::filesystem::path path_;
};

/// Puts this thread, and whatever it starts, on one CPU: the last that it may use, since the
/// first is where most of the system's own interrupts go.
void pin() {
  cpu_set_t allowed;
  ::sched_getaffinity(0, sizeof allowed, &allowed);
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &allowed)) --last;
  CPU_ZERO(&allowed);
  CPU_SET(last, &allowed);
  ::sched_setaffinity(0, sizeof allowed, &allowed);
}

std::unique_ptr<ChildProcess> startService() {
  ChildProcess::Options options;
  options.arguments = {thisProgram(), "--service"};
  options.readiness = true;
  auto service = std::make_unique<ChildProcess>(options);
  if (!service->readinessLine(kPatience)) throw std::runtime_error("the service does not come up");
  return service;
}

/// The table goes to the standard output that this process began with, which the proxy's own
/// greeting does not reach any more.
std::FILE* takeStandardOutput() {
  std::FILE* const out = ::fdopen(::dup(STDOUT_FILENO), "w");
  if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
    throw std::runtime_error("no standard output");
  }
  return out;
}

int runPlacement(std::string_view name) {
  if (name == "pinned") pin();
  Report report(takeStandardOutput(), name == "pinned" ? Placement::Pinned : Placement::Free);
  const StateDirectory state;
  const PrivateBus bus;
  ::setenv("ZQBUS_ADDRESS", bus.address().c_str(), 1);
  const auto service = startService();
  addCallRows(report);
  addListRows(report);
  addPenRows(report);
  addStartupRows(report, thisProgram());
  return 0;
}

int runBoth() {
  printHead(stdout);
  std::fflush(stdout);
  int worst = 0;
  for (const char* placement : {"pinned", "free"}) {
    ChildProcess::Options options;
    options.arguments = {thisProgram(), "--place", placement};
    ChildProcess child(options);
    worst = std::max(worst, child.wait());
  }
  return worst;
}

int run(int count, char** arguments) {
  const std::string_view role = count > 1 ? arguments[1] : "";
  const std::string_view value = count > 2 ? arguments[2] : "";
  if (role.empty()) return runBoth();
  if (role == "--service") return runBenchService();
  if (role == "--place" && (value == "pinned" || value == "free")) return runPlacement(value);
  if (role == "--startup" && (value == "proxy" || value == "raw")) {
    return measureStartup(std::string(value));
  }
  std::fprintf(stderr, "usage: perix_bench [--place pinned|free]\n");
  return 2;
}

}  // namespace
}  // namespace zq::bench

int main(int count, char** arguments) {
  try {
    return zq::bench::run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "perix_bench: %s\n", error.what());
    return 1;
  }
}
