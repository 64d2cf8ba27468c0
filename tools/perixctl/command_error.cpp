#include "tools/perixctl/command_error.h"

#include <array>

#include "perix/failure.h"
#include "perix/service_values.h"
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
  const char* introduction;  ///< stands before the words of the report
};
constexpr std::array kFailures = {
    FailureRow{PerixFailure::NoBus, ExitCode::NoService, ""},
    FailureRow{PerixFailure::NoService, ExitCode::NoService, ""},
    FailureRow{PerixFailure::Died, ExitCode::NoService, ""},
    FailureRow{PerixFailure::TimedOut, ExitCode::TimedOut, ""},
    FailureRow{PerixFailure::Refused, ExitCode::Refused, "the service answered with an error: "},
    FailureRow{PerixFailure::TooLarge, ExitCode::Refused, ""},
    FailureRow{PerixFailure::Unreadable, ExitCode::Refused, "the answer cannot be read: "},
    FailureRow{PerixFailure::NotAsked, ExitCode::Refused, "the service was not asked: "},
    FailureRow{PerixFailure::Forked, ExitCode::NoService, ""},
    FailureRow{PerixFailure::NoMemory, ExitCode::Refused, "the library gave up: "},
};

ExitCode exitCodeOf(ServiceResult result) {
  switch (result) {
    case ServiceResult::UnknownDesktop:
    case ServiceResult::UnknownDevice:
    case ServiceResult::UnknownPrinter:
    case ServiceResult::UnknownDriver:
    case ServiceResult::UnknownPipe:
    case ServiceResult::HostNotFound:
    case ServiceResult::UnknownTest:
    case ServiceResult::UnknownCommand:
      return ExitCode::NotFound;
    default:
      return ExitCode::Refused;
  }
}

std::string refusalText(const char* reason, int result) {
  std::string text = "the service refused";
  if (reason != nullptr) text.append(": ").append(reason);
  return text + " (result " + std::to_string(result) + ')';
}

}  // namespace

const char* wordOf(ExitCode code) {
  return wordFor(kExitCodes, code, "unknown");
}

void requireAnswer() {
  const PerixFailureReport report = PerixLastFailure();
  for (const FailureRow& row : kFailures) {
    if (row.failure != report.failure) continue;
    throw CommandError(row.code, row.introduction + report.text);
  }
}

std::string refusal() try {
  requireAnswer();
  return {};
} catch (const CommandError& error) {
  if (error.code() != ExitCode::Refused) throw;
  return error.what();
}

void requireDone(int result) {
  requireAnswer();
  if (result == 0) return;
  const auto known = static_cast<ServiceResult>(result);
  throw CommandError(exitCodeOf(known), refusalText(TextOf(known), result), result);
}

CommandError refusalInWords(const std::string& text) {
  const char* known = nullptr;
  for (int32_t result = 1; (known = TextOf(static_cast<ServiceResult>(result))) != nullptr;
       ++result) {
    if (known != text) continue;
    return {exitCodeOf(static_cast<ServiceResult>(result)), refusalText(known, result), result};
  }
  return {ExitCode::Refused, text};
}

}  // namespace zq::ctl
