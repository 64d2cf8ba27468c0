#include "tools/perixctl/command_line.h"

#include <algorithm>
#include <cctype>

#include "tools/perixctl/command_error.h"
#include "tools/perixctl/help.h"
#include "tools/perixctl/suggestion.h"

namespace zq::ctl {
namespace {

using Texts = std::vector<std::string>;

[[noreturn]] void complain(const std::string& text) {
  throw CommandError(ExitCode::Usage, text);
}

// "(perixctl device --help)"
std::string helpHint(const std::string& words) {
  return " (perixctl " + words + (words.empty() ? "" : " ") + "--help)";
}

std::string joinedWords(const std::string& words, const std::string& word) {
  return words.empty() ? word : words + " " + word;
}

std::string listOf(const Texts& words) {
  std::string list;
  for (const std::string& word : words) list += (list.empty() ? "" : ", ") + word;
  return list;
}

// --- Options and other words --------------------------------------------------------------------

// The arguments of the tool that are options, of all commands. An option has the same form wherever
// it is taken.
const Argument* optionCalled(const std::string& name) {
  const auto find = [&name](const std::vector<Argument>& arguments) -> const Argument* {
    const auto found = std::find_if(arguments.begin(), arguments.end(),
                                    [&](const Argument& option) { return option.name == name; });
    return found == arguments.end() ? nullptr : &*found;
  };
  if (const Argument* global = find(globalOptions())) return global;
  for (const Command& command : commandTable()) {
    if (const Argument* option = find(command.arguments)) return option;
  }
  return nullptr;
}

bool takesNextWord(const std::string& name) {
  const Argument* option = optionCalled(name);
  return option != nullptr && option->takesValue() && option->kind != ArgumentKind::Scenario;
}

// Words like -5 are numbers.
bool isOption(const std::string& word) {
  return word.size() > 1 && word[0] == '-' &&
         std::isdigit(static_cast<unsigned char>(word[1])) == 0;
}

// --- The values of a command ---------------------------------------------------------------------

const Argument* argumentCalled(const Command& command, const std::string& name) {
  const auto found = std::find_if(command.arguments.begin(), command.arguments.end(),
                                  [&](const Argument& argument) { return argument.name == name; });
  return found == command.arguments.end() ? nullptr : &*found;
}

void takeValue(Arguments& arguments, const Argument& argument, const std::string& text) {
  const std::string complaint = complaintAbout(argument, text);
  if (!complaint.empty()) complain(argument.name + ": " + complaint);
  arguments.add(argument.name, text);
}

void takeOption(Arguments& arguments, const Argument& argument, const SplitLine::Option& option) {
  if (arguments.has(argument.name)) complain(argument.name + " is given twice");
  if (!argument.takesValue()) {
    if (option.value) complain(argument.name + " takes no value");
    arguments.add(argument.name, "on");
  } else if (argument.kind == ArgumentKind::Scenario) {
    arguments.add(argument.name, option.value.value_or(""));
  } else if (option.value) {
    takeValue(arguments, argument, *option.value);
  } else {
    complain(argument.name + " needs a value");
  }
}

[[noreturn]] void complainAboutOption(const std::string& words, const Command* command,
                                      const std::string& name) {
  Texts known = {"--help", "--version"};
  for (const Argument& option : globalOptions()) known.push_back(option.name);
  if (command != nullptr) {
    for (const Argument& argument : command->arguments) {
      if (argument.isOption()) known.push_back(argument.name);
    }
  }
  const std::string whose = words.empty() ? "there is" : "'" + words + "' has";
  complain(whose + " no option '" + name + "'" + didYouMean(name, known) + helpHint(words));
}

void takePositionals(const Command& command, Arguments& arguments, const Texts& words) {
  std::size_t next = 0;
  for (const Argument& argument : command.arguments) {
    if (argument.isOption()) continue;
    const std::size_t end = argument.presence == Presence::Repeated ? words.size() : next + 1;
    for (; next < std::min(end, words.size()); ++next) {
      takeValue(arguments, argument, words[next]);
    }
    if (argument.isRequired() && !arguments.has(argument.name)) {
      complain(argument.name + " is missing; usage: " + usageOf(command));
    }
  }
  if (next < words.size()) {
    complain("'" + words[next] + "' is too much; usage: " + usageOf(command));
  }
}

void requireExactlyOneAlternative(const Command& command, const Arguments& arguments) {
  std::string names;
  std::size_t given = 0;
  for (const Argument& argument : command.arguments) {
    if (argument.presence != Presence::OneOf) continue;
    names += (names.empty() ? "" : " or ") + argument.name;
    given += arguments.has(argument.name) ? 1 : 0;
  }
  if (!names.empty() && given != 1) complain("give exactly one of " + names);
}

Globals globalsOf(const Arguments& arguments) {
  Globals globals;
  globals.json = arguments.has("--json");
  globals.verbose = arguments.has("--verbose");
  globals.quiet = arguments.has("--quiet");
  globals.trace = arguments.has("--trace");
  globals.noHeadings = arguments.has("--no-headings");
  globals.host = arguments.text("--host");
  globals.embedded = arguments.has("--embedded");
  globals.scenario = arguments.text("--embedded");
  globals.fields = splitAtCommas(arguments.text("--fields"));
  if (arguments.has("--timeout")) {
    globals.timeout = std::chrono::seconds(arguments.number<uint32_t>("--timeout"));
  }
  if (globals.embedded && !globals.host.empty()) complain("give --host or --embedded, not both");
  return globals;
}

// The word behind `words` that is equal to `word`, else the only word that begins with it.
std::string wordMeant(const std::string& words, const std::string& word) {
  Texts all;
  Texts begun;
  for (const Continuation& next : continuationsOf(words)) {
    if (next.word == word) return word;
    all.push_back(next.word);
    if (!word.empty() && next.word.starts_with(word)) begun.push_back(next.word);
  }
  if (begun.size() == 1) return begun.front();
  const std::string asked = joinedWords(words, word);
  if (!begun.empty()) {
    complain("'" + asked + "' may be any of " + listOf(begun) + helpHint(words));
  }
  const std::string meant = nearest(word, all);
  const std::string suggestion =
      meant.empty() ? "" : "; did you mean '" + joinedWords(words, meant) + "'?";
  complain("no command '" + asked + "'" + suggestion + helpHint(words));
}

[[noreturn]] void complainAboutNoun(const std::string& words) {
  Texts next;
  for (const Continuation& each : continuationsOf(words)) next.push_back(each.word);
  complain((words.empty() ? "a command is required: " : "'" + words + "' needs one of ") +
           listOf(next) + helpHint(words));
}

// Takes the options of the line. Returns the name of the option that asks for help or the version.
std::string takeOptions(const SplitLine& split, const ResolvedCommand& resolved,
                        CommandLine& line) {
  std::string information;
  Arguments globals;
  for (const Argument& option : globalOptions()) globals.declare(option);
  for (const SplitLine::Option& option : split.options) {
    const Argument* own =
        resolved.command == nullptr ? nullptr : argumentCalled(*resolved.command, option.name);
    const Argument* known = own != nullptr ? own : optionCalled(option.name);
    const bool global = own == nullptr && known != nullptr &&
                        std::any_of(globalOptions().begin(), globalOptions().end(),
                                    [&](const Argument& other) { return &other == known; });
    if (option.name == "--help" || option.name == "-h" || option.name == "--version") {
      information = option.name;
    } else if (own == nullptr && !global) {
      complainAboutOption(resolved.words, resolved.command, option.name);
    } else {
      takeOption(own != nullptr ? line.arguments : globals, *known, option);
    }
  }
  line.globals = globalsOf(globals);
  return information;
}

}  // namespace

SplitLine splitLine(const Texts& words) {
  SplitLine split;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      split.words.insert(split.words.end(), words.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                         words.end());
      break;
    }
    if (!isOption(word)) {
      split.words.push_back(word);
      continue;
    }
    const std::size_t equals = word.find('=');
    SplitLine::Option& option = split.options.emplace_back();
    option.name = word.substr(0, equals);
    if (equals != std::string::npos) {
      option.value = word.substr(equals + 1);
    } else if (takesNextWord(option.name)) {
      split.lacksValue = i + 1 == words.size();
      if (!split.lacksValue) option.value = words[++i];
    }
  }
  return split;
}

ResolvedCommand resolveCommand(const Texts& words) {
  ResolvedCommand resolved;
  while (resolved.command == nullptr && resolved.used < words.size()) {
    const std::string& word = words[resolved.used];
    const std::string asked = joinedWords(resolved.words, word);
    const bool exact = commandOf(asked) != nullptr;  // also a hidden one
    resolved.words = exact ? asked : joinedWords(resolved.words, wordMeant(resolved.words, word));
    resolved.command = commandOf(resolved.words);
    ++resolved.used;
  }
  return resolved;
}

CommandLine parseCommandLine(const Texts& words) {
  const SplitLine split = splitLine(words);
  ResolvedCommand resolved = resolveCommand(split.words);
  CommandLine line;
  const bool noun = resolved.command == nullptr;
  const Command* list =
      noun && !resolved.words.empty() ? commandOf(resolved.words + " list") : nullptr;
  if (list != nullptr) resolved.command = list;
  if (resolved.command != nullptr) {
    for (const Argument& argument : resolved.command->arguments) line.arguments.declare(argument);
  }
  const std::string information = takeOptions(split, resolved, line);
  if (!information.empty()) {
    line.information = information == "--version" ? versionText() : helpFor(resolved.words);
    return line;
  }
  if (resolved.command == nullptr) complainAboutNoun(resolved.words);
  takePositionals(
      *resolved.command, line.arguments,
      {split.words.begin() + static_cast<std::ptrdiff_t>(resolved.used), split.words.end()});
  requireExactlyOneAlternative(*resolved.command, line.arguments);
  line.command = resolved.command;
  return line;
}

}  // namespace zq::ctl
