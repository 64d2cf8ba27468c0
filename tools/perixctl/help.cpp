#include "tools/perixctl/help.h"

#include <array>
#include <utility>

#include "platform/text/table.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

struct ExitCodeRow {
  ExitCode code;
  bool needsService;
  const char* help;
};
constexpr std::array kExitCodes = {
    ExitCodeRow{ExitCode::Done, false, "done"},
    ExitCodeRow{ExitCode::Refused, false, "the service refused, or the output cannot be written"},
    ExitCodeRow{ExitCode::Usage, false, "the command line, or a file that it names, is wrong"},
    ExitCodeRow{ExitCode::TimedOut, true, "no answer in time"},
    ExitCodeRow{ExitCode::NoService, true, "no bus, no service, or it went away during the call"},
    ExitCodeRow{ExitCode::NotFound, true, "no such desktop, device, printer and the like"},
};

using Lines = std::vector<TextTable::Row>;

// Pairs of a term and its explanation below a heading; nothing without pairs.
std::string section(const std::string& heading, Lines lines) {
  if (lines.empty()) return {};
  for (TextTable::Row& line : lines) line.cells[0] = "  " + line.cells[0];
  TextTable table{.headings = {"", ""}, .showHeadings = false};
  table.rows = std::move(lines);
  return "\n" + heading + ":\n" + table.render();
}

std::string explanationOf(const Argument& argument) {
  if (argument.words.empty()) return argument.help;
  return argument.help + ": " + listed(argument.words);
}

Lines linesOf(const std::vector<Argument>& arguments, bool options) {
  Lines lines;
  for (const Argument& argument : arguments) {
    if (argument.isOption() != options) continue;
    lines.push_back({{bareSynopsisOf(argument), explanationOf(argument)}});
  }
  return lines;
}

std::string globalSection() {
  Lines lines = linesOf(globalOptions(), true);
  lines.push_back({{"--help", "Show this"}});
  lines.push_back({{"--version", "Show the tool's version"}});
  return section("Options of every command", std::move(lines));
}

std::string exitCodeSection(Asks asks) {
  Lines lines;
  for (const ExitCodeHelp& row : exitCodesOf(asks)) {
    lines.push_back({{std::to_string(row.code), row.help}});
  }
  return section("Exit codes", std::move(lines));
}

std::string helpForCommand(const Command& command) {
  return "Usage: " + usageOf(command) + "\n\n" + command.help + ".\n" +
         section("Arguments", linesOf(command.arguments, false)) +
         section("Options", linesOf(command.arguments, true)) + globalSection() +
         exitCodeSection(command.asks) + "\nExample:\n  " + exampleOf(command) + "\n";
}

std::string helpForNoun(const std::string& words) {
  std::string about = "Commands the service that redirects devices into desktops";
  for (const Family& family : commandFamilies()) {
    if (family.words == words) about = family.help;
  }
  Lines lines;
  for (const Continuation& next : continuationsOf(words)) lines.push_back({{next.word, next.help}});
  const std::string blank = words.empty() ? "" : " ";
  const bool lists = commandOf(words + " list") != nullptr;
  return "Usage: perixctl " + words + blank + "COMMAND ...\n\n" + about + ".\n" +
         (lists ? "'perixctl " + words + "' alone is 'perixctl " + words + " list'.\n" : "") +
         section("Commands", std::move(lines)) + globalSection() + exitCodeSection(Asks::Service) +
         "\nWords may be cut as long as they stay unambiguous. 'perixctl " + words + blank +
         "COMMAND --help' says more.\n";
}

}  // namespace

std::string helpFor(const std::string& words) {
  const Command* command = commandOf(words);
  return command != nullptr ? helpForCommand(*command) : helpForNoun(words);
}

std::string argumentsOf(const Command& command) {
  std::string text;
  std::string alternatives;
  for (const Argument& argument : command.arguments) {
    if (argument.presence == Presence::OneOf) {
      alternatives += (alternatives.empty() ? " {" : " | ") + bareSynopsisOf(argument);
      continue;
    }
    if (!alternatives.empty()) text += std::exchange(alternatives, "") + "}";
    text += " " + synopsisOf(argument);
  }
  return alternatives.empty() ? text : text + alternatives + "}";
}

std::string usageOf(const Command& command) {
  return "perixctl " + command.words + argumentsOf(command);
}

std::string bareSynopsisOf(const Argument& argument) {
  if (!argument.isOption() || !argument.takesValue()) return argument.name;
  const std::string value = valueNameOf(argument);
  return argument.name +
         (argument.kind == ArgumentKind::Scenario ? "[=" + value + "]" : " " + value);
}

std::string synopsisOf(const Argument& argument) {
  std::string text = bareSynopsisOf(argument);
  switch (argument.presence) {
    case Presence::Optional:
      return "[" + text + "]";
    case Presence::Repeated:
      return text + " ...";
    case Presence::Required:
    case Presence::OneOf:
      break;
  }
  return text;
}

std::string exampleOf(const Command& command) {
  std::string example = "perixctl " + command.words;
  bool alternativeGiven = false;
  for (const Argument& argument : command.arguments) {
    if (argument.presence == Presence::Optional && argument.sample == nullptr) continue;
    if (argument.presence == Presence::OneOf && std::exchange(alternativeGiven, true)) continue;
    if (argument.isOption()) example += " " + argument.name;
    if (argument.takesValue()) example += " " + sampleOf(argument);
  }
  return example;
}

std::vector<ExitCodeHelp> exitCodesOf(Asks asks) {
  std::vector<ExitCodeHelp> codes;
  for (const ExitCodeRow& row : kExitCodes) {
    if (row.needsService && asks == Asks::Nobody) continue;
    codes.push_back({static_cast<int>(row.code), row.help});
  }
  return codes;
}

std::string versionText() {
  return "perixctl " PERIXCTL_VERSION "\n";
}

}  // namespace zq::ctl
