// Measures the operations of the product, compared with their parts, on a private bus:
//
//   perix_bench                both ways to the service, in both placements
//   perix_bench --rows FILE    the same; each row is appended to FILE too, fields between tabs
//
// The other options are how the program starts itself in its other roles.
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "bench/bench_service.h"
#include "bench/far_end.h"
#include "bench/raw_service.h"
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

std::unique_ptr<ChildProcess> startService(const char* role) {
  ChildProcess::Options options;
  options.arguments = {thisProgram(), role};
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

void addDirectRows(Report& report) {
  const RawPair bare;  // before the first thread
  const auto raw = startService("--raw-service");
  addDirectCallRows(report, thisProgram(), bare.bus());
  addDirectListRows(report, bare.bus());
  addEventRows(report);
  addThreadRow(report, 1.5);
  addTraceRows(report);
  addStartupRow(report, thisProgram(), std::nullopt);
}

void addBrokerRows(Report& report) {
  addBrokerCallRows(report);
  addBrokerListRows(report);
  addThreadRow(report, 2);
  addPenRows(report);
  addStartupRow(report, thisProgram(), Target{Target::Kind::AtMost, 2});
}

/// `place` and `way` are names of theirs, `copy` is the file for the rows or empty.
int runPart(std::string_view place, std::string_view way, const std::string& copy) {
  const bool pinned = place == "pinned";
  const bool direct = way == "direct";
  if (pinned) pin();
  ::setenv("ZQBUS_DIRECT", direct ? "1" : "0", 1);
  Report report(takeStandardOutput(), copy.empty() ? nullptr : std::fopen(copy.c_str(), "ae"),
                pinned ? Placement::Pinned : Placement::Free, direct ? Way::Direct : Way::Broker);
  const StateDirectory state;
  const PrivateBus bus;
  ::setenv("ZQBUS_ADDRESS", bus.address().c_str(), 1);
  const auto service = startService("--service");
  direct ? addDirectRows(report) : addBrokerRows(report);
  return 0;
}

/// Each part in a process of its own: a process has one connection, and one mind about the way.
int runAll(const std::string& copy) {
  printHead(stdout);
  std::fflush(stdout);
  int worst = 0;
  for (const char* way : {"direct", "broker"}) {
    for (const char* place : {"pinned", "free"}) {
      ChildProcess::Options options;
      options.arguments = {thisProgram(), "--part", place, way, copy};
      ChildProcess child(options);
      worst = std::max(worst, child.wait());
    }
  }
  return worst;
}

int run(const std::vector<std::string>& arguments) {
  const std::string role = arguments.empty() ? "" : arguments[0];
  if (role.empty()) return runAll("");
  if (role == "--rows" && arguments.size() == 2) return runAll(arguments[1]);
  if (role == "--part" && arguments.size() == 4) {
    return runPart(arguments[1], arguments[2], arguments[3]);
  }
  if (role == "--service") return runBenchService();
  if (role == "--raw-service") return runRawService();
  if (role == "--startup" && arguments.size() == 2) return measureStartup(arguments[1]);
  std::fprintf(stderr, "usage: perix_bench [--rows FILE]\n");
  return 2;
}

}  // namespace
}  // namespace zq::bench

int main(int count, char** arguments) {
  try {
    return zq::bench::run({arguments + 1, arguments + count});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "perix_bench: %s\n", error.what());
    return 1;
  }
}
