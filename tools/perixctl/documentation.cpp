// completion and man: the command table in other forms.
#include <map>
#include <set>
#include <sstream>

#include "tools/perixctl/command.h"

namespace zq::ctl {
namespace {

constexpr const char* kGlobalOptions = "--json --verbose --embedded --help";

// For every beginning of a command, what may follow it.
std::map<std::string, std::set<std::string>> continuations() {
  std::map<std::string, std::set<std::string>> next;
  for (const Command& command : commandTable()) {
    std::string path;
    std::istringstream words(command.words);
    for (std::string word; words >> word;) {
      next[path].insert(word);
      path += " " + word;
    }
    for (const Argument& argument : command.arguments) {
      if (argument.isOption()) next[path].insert(argument.name);
    }
  }
  return next;
}

constexpr const char* kCompletionBody = R"(
_perixctl() {
  local path="" word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ " ${_perixctl_next[x$path]:-} " == *" $word "* ]] && path+=" $word"
  done
  COMPREPLY=($(compgen -W "${_perixctl_next[x$path]:-} $_perixctl_global" -- "${COMP_WORDS[COMP_CWORD]}"))
}
complete -o default -F _perixctl perixctl
)";

Outcome printed(std::string text) {
  return {.document = {{"text", text}}, .text = std::move(text)};
}

Outcome bashCompletion(Run& /*run*/) {
  std::string script = "# bash completion for perixctl\ndeclare -gA _perixctl_next=(\n";
  for (const auto& [path, words] : continuations()) {
    std::string list;
    for (const std::string& word : words) list += (list.empty() ? "" : " ") + word;
    script += "  [\"x" + path + "\"]=\"" + list + "\"\n";
  }
  script += std::string(")\n_perixctl_global=\"") + kGlobalOptions + "\"\n";
  return printed(script + kCompletionBody);
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

std::string synopsisOf(const Argument& argument) {
  const bool optional = argument.presence == Presence::Optional;
  std::string text = "\\fI" + troff(argument.name) + "\\fR";
  if (argument.isOption()) {
    text = "\\fB" + troff(argument.name) + "\\fR";
    if (argument.kind != ArgumentKind::Flag) text += " \\fIVALUE\\fR";
  }
  if (argument.presence == Presence::Repeated) text += " ...";
  if (argument.presence == Presence::OneOf) return "{" + text + "}";
  return optional ? "[" + text + "]" : text;
}

std::string manualEntry(const Command& command) {
  std::string entry = ".TP\n\\fB" + troff(command.words) + "\\fR";
  for (const Argument& argument : command.arguments) entry += " " + synopsisOf(argument);
  entry += "\n" + troff(command.help) + ".\n";
  for (const Argument& argument : command.arguments) {
    entry += ".br\n" + synopsisOf(argument) + ": " + troff(argument.help) + ".\n";
  }
  return entry;
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
Numbers are decimal, or hexadecimal behind 0x. Of arguments in braces exactly one is given.
.SH OPTIONS
.TP
\fB\-\-json\fR
Write one JSON document, errors included; \fBmonitor\fR and \fBpen replay\fR write one on
each line.
.TP
\fB\-\-embedded\fR[=\fISCENARIO\fR]
Bring up a private bus and a development service for this one command.
.TP
\fB\-\-verbose\fR
Say on standard error where the log is and why an operation failed.
.SH COMMANDS
)";

constexpr const char* kManualTail = R"(.SH EXIT STATUS
0 done, 1 the service refused, 2 usage, 3 time\-out, 8 no service, 10 not found.
\fBservice run\fR ends with the exit status of its program.
.SH ENVIRONMENT
.TP
ZQBUS_ADDRESS
The bus to use, as a D\-Bus address; the user's session bus without it.
.TP
NO_COLOR
No colours when set.
.TP
XDG_STATE_HOME
Where the log's directory, perix, lies; ~/.local/state without it.
)";

Outcome manual(Run& /*run*/) {
  std::string page = kManualHead;
  for (const Command& command : commandTable()) page += manualEntry(command);
  return printed(page + kManualTail);
}

}  // namespace

std::vector<Command> documentationCommands() {
  return {
      {"completion bash", {}, "Print the completion for bash, to be sourced", bashCompletion},
      {"man", {}, "Print the manual page", manual},
  };
}

}  // namespace zq::ctl
