#include "tools/perixctl/command_error.h"

#include <array>

#include "perix/failure.h"
#include "tools/perixctl/words.h"

namespace zq::ctl {
namespace {

constexpr std::array kExitCodes = {
    Word{ExitCode::Done, "done"},
    Word{ExitCode::Refused, "refused"},
    Word{ExitCode::Usage, "usage"},
    Word{ExitCode::TimedOut, "timed-out"},
    Word{ExitCode::NoService, "no-service"},
    Word{ExitCode::NotFound, "not-found"},
    Word{ExitCode::CannotRun, "cannot-run"},
};

struct FailureRow {
  PerixFailure failure;
  ExitCode code;
  const char* text;
};
constexpr std::array kFailures = {
    FailureRow{PerixFailure::NoService, ExitCode::NoService, "the service is not running"},
    FailureRow{PerixFailure::Died, ExitCode::NoService, "the service went away during the call"},
    FailureRow{PerixFailure::TimedOut, ExitCode::TimedOut, "the service did not answer in time"},
    FailureRow{PerixFailure::Refused, ExitCode::Refused, "the service answered with an error"},
    FailureRow{PerixFailure::TooLarge, ExitCode::Refused, "more than the bus carries"},
    FailureRow{PerixFailure::Unreadable, ExitCode::Refused, "the service's answer cannot be read"},
    FailureRow{PerixFailure::NotAsked, ExitCode::Refused, "the service was not asked"},
    FailureRow{PerixFailure::Forked, ExitCode::NoService, "no connection in a forked process"},
    FailureRow{PerixFailure::NoMemory, ExitCode::Refused, "there is no memory"},
};

// What the service's results mean, as far as they are known.
struct ResultRow {
  int result;
  ExitCode code;
  const char* text;
};
constexpr std::array kResults = {
    ResultRow{1, ExitCode::NotFound, "unknown desktop"},
    ResultRow{2, ExitCode::NotFound, "unknown device"},
    ResultRow{3, ExitCode::Refused, "the desktop is not connected"},
    ResultRow{4, ExitCode::Refused, "already connected to this desktop"},
    ResultRow{5, ExitCode::Refused, "connected to another desktop"},
    ResultRow{6, ExitCode::Refused, "not connected to this desktop"},
    ResultRow{7, ExitCode::Refused, "forbidden by the device's policy"},
    ResultRow{8, ExitCode::Refused, "invalid argument"},
    ResultRow{9, ExitCode::Refused, "exists already"},
    ResultRow{10, ExitCode::Refused, "the device does not wait for its configuration"},
    ResultRow{11, ExitCode::Refused, "not a disk"},
    ResultRow{12, ExitCode::NotFound, "unknown printer"},
    ResultRow{13, ExitCode::NotFound, "unknown driver"},
    ResultRow{14, ExitCode::NotFound, "unknown pipe"},
    ResultRow{15, ExitCode::NotFound, "host not found"},
    ResultRow{16, ExitCode::Refused, "stopped"},
    ResultRow{17, ExitCode::Refused, "nothing to stop"},
    ResultRow{18, ExitCode::NotFound, "unknown test"},
    ResultRow{19, ExitCode::NotFound, "unknown command"},
    ResultRow{20, ExitCode::Refused, "the device is of another type"},
    ResultRow{21, ExitCode::Refused, "not mounted"},
    ResultRow{22, ExitCode::Refused, "no device number is free"},
    ResultRow{23, ExitCode::Refused, "busy"},
    ResultRow{24, ExitCode::Refused, "the print server does not answer"},
    ResultRow{25, ExitCode::Refused, "the print server refused"},
};

}  // namespace

const char* wordOf(ExitCode code) {
  return wordFor(kExitCodes, code, "unknown");
}

void requireAnswer() {
  const PerixFailureReport report = PerixLastFailure();
  for (const FailureRow& row : kFailures) {
    if (row.failure != report.failure) continue;
    const bool explained =
        (report.failure == PerixFailure::Refused || report.failure == PerixFailure::NotAsked) &&
        !report.text.empty();
    throw CommandError(row.code, explained ? std::string(row.text) + ": " + report.text : row.text);
  }
}

void requireDone(int result) {
  requireAnswer();
  if (result == 0) return;
  const std::string number = " (result " + std::to_string(result) + ")";
  for (const ResultRow& row : kResults) {
    if (row.result == result) {
      throw CommandError(row.code, std::string("the service refused: ") + row.text + number,
                         result);
    }
  }
  throw CommandError(ExitCode::Refused, "the service refused" + number, result);
}

CommandError refusalInWords(const std::string& text) {
  for (const ResultRow& row : kResults) {
    if (row.text == text) {
      return {row.code,
              "the service refused: " + text + " (result " + std::to_string(row.result) + ")",
              row.result};
    }
  }
  return {ExitCode::Refused, text};
}

}  // namespace zq::ctl
