#include "service/run.h"

#include <pthread.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "service/bus/dev_service.h"
#include "service/cups/cups.h"
#include "service/model/host_devices.h"
#include "service/replay/replay_service.h"
#include "service/scenario/scenario.h"

namespace zq::devservice {
namespace {

enum ExitCode : int { kDone = 0, kCannotStart = 1, kBadScenario = 2, kBusLost = 3 };

struct CommandLine {
  std::string scenario;
  bool check = false;
  bool hostDevices = false;
  std::string trace;  ///< to replay, in place of a scenario
  double speed = 1;
  std::optional<std::string> cupsServer;  ///< empty: CUPS_SERVER or this machine's server
  bool verbose = false;
  int readyDescriptor = -1;
};

/// The example scenario: the installed one, else the one in the source tree.
std::string defaultScenario() {
  std::error_code ignored;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
  const auto installed = program.parent_path().parent_path() / "share/perix/scenarios/office.toml";
  if (std::filesystem::exists(installed, ignored)) return installed.string();
  return PERIX_SCENARIO_DIR "/office.toml";
}

/// A recorded time that is divided by a smaller number does not fit a wait.
std::string complaintAboutSpeed(const std::string& text) {
  double speed = -1;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, speed);
  const bool isNumber = error == std::errc{} && stop == end;
  const bool fits = speed == 0 || (speed >= 0.001 && speed <= 1e6);
  return isNumber && fits ? "" : "'" + text + "' is not 0 or a number from 0.001 to 1000000";
}

void define(CLI::App& app, CommandLine& line) {
  app.set_version_flag("--version", "perix-devservice " PERIX_VERSION);
  app.add_option("--scenario", line.scenario, "The world at the start, as a TOML file")
      ->type_name("FILE")
      ->check([](const std::string& file) { return file.empty() ? "names no file" : ""; });
  app.add_flag("--check", line.check, "Check the scenario and end");
  app.add_flag("--host-devices", line.hostDevices, "Add this machine's own USB devices");
  app.add_option_function<std::string>(
         "--cups", [&line](const std::string& server) { line.cupsServer = server; },
         "Have the local printers be those of a CUPS server: a host, host:port or a socket's path; "
         "CUPS_SERVER or this machine's own when none is named")
      ->type_name("SERVER")
      ->expected(0, 1)
      ->default_str("");
  app.add_option("--replay", line.trace,
                 "Answer as the service did whose trace this is, in place of a scenario")
      ->type_name("TRACE")
      ->excludes("--scenario", "--host-devices", "--cups");
  app.add_option("--speed", line.speed, "How many times faster to replay; 0 for at once")
      ->type_name("N")
      ->check(complaintAboutSpeed)
      ->needs("--replay");
  app.add_flag("--verbose", line.verbose, "Write each call to standard error");
  app.add_option("--ready-fd", line.readyDescriptor,
                 "Write \"ready\" to this descriptor once the service can be called")
      ->type_name("N");
}

bool load(const CommandLine& line, Scenario& scenario) {
  std::vector<std::string> mistakes;
  const auto loaded =
      loadScenario(line.scenario.empty() ? defaultScenario() : line.scenario, mistakes);
  for (const std::string& mistake : mistakes) std::cerr << mistake << '\n';
  if (!loaded) return false;
  scenario = *loaded;
  if (!line.hostDevices) return true;
  for (Device& device : hostDevices()) scenario.devices.push_back(std::move(device));
  return true;
}

void tellReady(int descriptor) {
  constexpr std::string_view kReady = "ready\n";
  if (descriptor < 0) return;
  if (::write(descriptor, kReady.data(), kReady.size()) < 0) {
    std::perror("perix-devservice: --ready-fd");
  }
}

/// The signals that end the program, blocked in every thread that starts from now on.
sigset_t blockEndingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

int cannotStart(const std::string& reason) {
  std::cerr << "perix-devservice: cannot start: " << reason << '\n';
  return kCannotStart;
}

int replay(const CommandLine& line) {
  std::vector<ZQBusTraceEntry> trace;
  std::string error;
  if (!readZQBusTrace(line.trace, trace, error)) {
    std::cerr << "perix-devservice: " << error << '\n';
    return kBadScenario;
  }
  Recording recording(trace);
  if (recording.empty()) {
    std::cerr << "perix-devservice: " << line.trace << ": no call of the service is recorded\n";
    return kBadScenario;
  }
  if (line.check) return kDone;
  const sigset_t signals = blockEndingSignals();
  ReplayService service(std::move(recording), line.speed);
  if (!service.start(error)) return cannotStart(error);
  tellReady(line.readyDescriptor);
  int signal = 0;
  sigwait(&signals, &signal);
  for (const std::string& difference : service.report()) std::cerr << difference << '\n';
  return kDone;
}

int serve(const CommandLine& line, Scenario scenario) {
  const sigset_t signals = blockEndingSignals();
  std::atomic<int> exitCode = kDone;
  const auto onEnd = [&exitCode](Ending ending) {
    if (ending == Ending::BusLost) exitCode = kBusLost;
    ::kill(::getpid(), SIGTERM);
  };
  DevService::Options options{std::move(scenario), line.verbose, onEnd};
  std::string error;
  if (line.cupsServer &&
      !useCups(*line.cupsServer, options.scenario, options.printerBackend, error))
    return cannotStart(error);
  DevService service(std::move(options));
  if (!service.start(error)) return cannotStart(error);
  tellReady(line.readyDescriptor);
  int signal = 0;
  sigwait(&signals, &signal);
  if (exitCode == kBusLost) std::cerr << "perix-devservice: the bus is lost\n";
  return exitCode;
}

}  // namespace

int run(int argc, char** argv) {
  CLI::App app(
      "A development service: stands in for the peripheral service, with a model of the "
      "world in its place.");
  CommandLine line;
  define(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kCannotStart;
  }
  if (!line.trace.empty()) return replay(line);
  Scenario scenario;
  if (!load(line, scenario)) return kBadScenario;
  return line.check ? kDone : serve(line, std::move(scenario));
}

}  // namespace zq::devservice
