// completion and man: the command table in other forms.
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>

#include "platform/text/escape.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/completion.h"
#include "tools/perixctl/help.h"

namespace zq::ctl {
namespace {

// A shell waits for its completion, and so does the user.
constexpr suseconds_t kLongestCompletionUs = 90'000;

Outcome printed(std::string text) {
  Outcome outcome{.document = {{"text", text}}};
  outcome.text = std::move(text);
  return outcome;
}

std::function<Outcome(Run&)> completionFor(const char* shell) {
  return [shell](Run& /*run*/) { return printed(completionScript(shell)); };
}

void endSilently(int /*signal*/) {
  _exit(0);
}

void limitTheTime() {
  std::signal(SIGALRM, endSilently);
  const itimerval limit{{}, {0, kLongestCompletionUs}};
  setitimer(ITIMER_REAL, &limit, nullptr);
}

Outcome complete(Run& run) {
  if (!run.globals.timeout) limitTheTime();  // else the caller has set one
  run.indicator.end();
  run.terminal.keepForeignOutputAway(false);
  const OwnedDescriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(null.get(), STDERR_FILENO);
  std::string lines;
  for (const Candidate& candidate : candidatesFor(run.arguments.texts("WORD"))) {
    // A shell would not hand such a name back as it is.
    if (escaped(candidate.word) != candidate.word) continue;
    lines += candidate.word + "\t" + escaped(candidate.help) + "\n";
  }
  run.terminal.write(lines);
  return {.written = true};
}

// A leading dot or quote would be a command to the formatter, and a plain dash a hyphen.
std::string troff(const std::string& text) {
  std::string result = text.starts_with('.') || text.starts_with('\'') ? "\\&" : "";
  for (const char c : text) {
    if (c == '\\') {
      result += "\\e";
    } else {
      result += c == '-' ? "\\-" : std::string(1, c);
    }
  }
  return result;
}

std::string manualItem(const std::string& term, const std::string& text) {
  return ".TP\n\\fB" + troff(term) + "\\fR\n" + troff(text) + "\n";
}

std::string manualEntry(const Command& command) {
  std::string entry = ".TP\n\\fB" + troff(command.words) + "\\fR" + troff(argumentsOf(command)) +
                      "\n" + troff(command.help) + ".\n";
  for (const Argument& argument : command.arguments) {
    entry += ".br\n\\fI" + troff(bareSynopsisOf(argument)) + "\\fR: " + troff(argument.help);
    if (!argument.words.empty()) entry += ": " + troff(listed(argument.words));
    entry += ".\n";
  }
  return entry + ".br\nExample: " + troff(exampleOf(command)) + "\n";
}

constexpr const char* kManualHead = R"(.TH PERIXCTL 1
.SH NAME
perixctl \- command the service that redirects devices into desktops
.SH SYNOPSIS
.B perixctl
[\fIoptions\fR] \fIcommand\fR [\fIarguments\fR]
.SH DESCRIPTION
Does one thing with the peripheral service and ends. Results go to standard output, as text for
people or, with \fB\-\-json\fR, as one JSON document; everything else goes to standard error.
.PP
Words may be cut as long as they stay unambiguous, and a noun alone lists. Numbers are decimal, or
hexadecimal behind 0x. A device is given by its number, its source id or its name, a printer by its
number or its name; wherever the service takes a number with a meaning, the tool takes its word,
too. Of arguments in braces exactly one is given.
.SH OPTIONS
)";

constexpr const char* kManualTail = R"(.PP
\fBservice run\fR ends with the exit status of its program, with 127 when it cannot be run.
.SH ENVIRONMENT
.TP
ZQBUS_ADDRESS
The bus to use, as a D\-Bus address; the user's session bus without it.
.TP
ZQBUS_DIRECT
0 sends calls through the bus's broker, and not over a direct line to the service.
.TP
ZQBUS_ACTIVATE
0 keeps the bus from starting a service that nobody runs.
.TP
ZQBUS_TRACE
A file to which each call and event is appended.
.TP
NO_COLOR
No colours when set.
.TP
TMPDIR
Where the directory of a private bus lies; /tmp without it.
.TP
XDG_STATE_HOME
Where the log's directory, perix, lies; ~/.local/state without it.
)";

Outcome manual(Run& /*run*/) {
  return printed(manualPage());
}

}  // namespace

std::string manualPage() {
  std::string page = kManualHead;
  for (const Argument& option : globalOptions()) {
    page += manualItem(bareSynopsisOf(option), option.help + ".");
  }
  page += ".SH COMMANDS\n";
  for (const Command& command : commandTable()) {
    if (!command.hidden) page += manualEntry(command);
  }
  page += ".SH EXIT STATUS\n";
  for (const ExitCodeHelp& row : exitCodesOf(Asks::Service)) {
    page += manualItem(std::to_string(row.code), std::string(row.help) + ".");
  }
  return page + kManualTail;
}

std::vector<Command> documentationCommands() {
  return {
      {"completion bash",
       {},
       "Print the completion for bash, to be sourced",
       completionFor("bash"),
       Asks::Nobody},
      {"completion zsh",
       {},
       "Print the completion for zsh, to be sourced or put into fpath",
       completionFor("zsh"),
       Asks::Nobody},
      {"completion fish",
       {},
       "Print the completion for fish, to be sourced",
       completionFor("fish"),
       Asks::Nobody},
      {.words = "complete",
       .arguments = {{"WORD", ArgumentKind::Text, "The words of a command line, the last one cut",
                      Presence::Repeated}},
       .help = "Print the words with which a command line may go on",
       .execute = complete,
       .asks = Asks::Nobody,
       .hidden = true},
      {"man", {}, "Print the manual page", manual, Asks::Nobody},
  };
}

}  // namespace zq::ctl
