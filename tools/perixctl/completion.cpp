#include "tools/perixctl/completion.h"

#include <algorithm>
#include <array>
#include <filesystem>

#include "perix/perix_proxy.h"
#include "tools/perixctl/bus.h"
#include "tools/perixctl/choice.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/command_line.h"
#include "tools/perixctl/development_words.h"

namespace zq::ctl {
namespace {

using Candidates = std::vector<Candidate>;

// --- Names that the service knows ----------------------------------------------------------------

PerixProxy* service() {
  return serviceIsThere() ? PerixProxy::getInstance() : nullptr;
}

Candidates desktops(const Argument& /*argument*/) {
  Candidates found;
  if (PerixProxy* proxy = service()) {
    for (const auto& [name, id] : proxy->GetVmList()) found.push_back({name, "desktop"});
  }
  return found;
}

Candidates namesOf(const std::vector<Choice>& choices) {
  Candidates found;
  for (const Choice& choice : choices) {
    found.push_back({choice.name, "number " + std::to_string(choice.number)});
  }
  return found;
}

Candidates devices(const Argument& /*argument*/) {
  PerixProxy* proxy = service();
  return proxy == nullptr ? Candidates{} : namesOf(deviceChoices(*proxy));
}

Candidates printers(const Argument& /*argument*/) {
  PerixProxy* proxy = service();
  return proxy == nullptr ? Candidates{} : namesOf(printerChoices(*proxy));
}

Candidates drivers(const Argument& /*argument*/) {
  Candidates found;
  PerixProxy* proxy = service();
  if (proxy == nullptr) return found;
  const Json document = parsedText(proxy->GetPrinterDriverlList(""));
  if (!document.is_object()) return found;
  for (const Json& driver : document.value("drivers", Json::array())) {
    found.push_back({driver.value("name", ""), driver.value("maker", "")});
  }
  return found;
}

Candidates faultMethods(const Argument& /*argument*/) {
  Candidates found = {{"*", "every method"}};
  for (const std::string& method :
       controlIsThere() ? faultMethodNames() : std::vector<std::string>{}) {
    found.push_back({method, ""});
  }
  return found;
}

// --- Words of tables ----------------------------------------------------------------------------

Candidates ofWords(const Argument& argument) {
  Candidates found;
  for (const Word& word : argument.words) found.push_back({word.word, ""});
  return found;
}

Candidates switches(const Argument& /*argument*/) {
  return {{"on", ""}, {"off", ""}};
}

Candidates faultKinds(const Argument& /*argument*/) {
  Candidates found;
  for (const FaultKind& kind : kFaultKinds) found.push_back({kind.name, kind.help});
  return found;
}

Candidates plugKeys(const Argument& /*argument*/) {
  Candidates found;
  for (const PlugKey& key : kPlugKeys) {
    found.push_back({std::string(key.name) + "=", key.help});
    for (const Word& word : key.words) {
      found.push_back({std::string(key.name) + "=" + word.word, ""});
    }
  }
  return found;
}

// --- Files
// ----------------------------------------------------------------------------------------

// Files with that ending, and directories on the way to them, that begin as `begun` does.
Candidates filesThatBegin(const std::string& begun, const char* ending) {
  Candidates found;
  const std::size_t slash = begun.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : begun.substr(0, slash + 1);
  std::error_code error;
  std::filesystem::directory_iterator entries(directory.empty() ? "." : directory, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    const std::string name = entries->path().filename();
    std::error_code ignored;
    if (entries->is_directory(ignored)) {
      found.push_back({directory + name + "/", ""});
    } else if (name.ends_with(ending)) {
      found.push_back({directory + name, ""});
    }
  }
  return found;
}

// --- All of them
// -----------------------------------------------------------------------------------

struct Source {
  ArgumentKind kind;
  Candidates (*candidates)(const Argument& argument);
};
constexpr std::array kSources = {
    Source{ArgumentKind::Desktop, desktops},     Source{ArgumentKind::Device, devices},
    Source{ArgumentKind::Printer, printers},     Source{ArgumentKind::PrinterName, printers},
    Source{ArgumentKind::Driver, drivers},       Source{ArgumentKind::FaultMethod, faultMethods},
    Source{ArgumentKind::FaultKind, faultKinds}, Source{ArgumentKind::PlugKey, plugKeys},
    Source{ArgumentKind::Switch, switches},      Source{ArgumentKind::Word, ofWords},
};

struct FileSource {
  ArgumentKind kind;
  const char* ending;
};
constexpr std::array kFileSources = {
    FileSource{ArgumentKind::Scenario, ".toml"},
    FileSource{ArgumentKind::Stroke, ".jsonl"},
    FileSource{ArgumentKind::File, ""},
};

// With commas between, the last is completed.
Candidates ofChoice(const Argument& argument, const std::string& begun) {
  const std::size_t comma = begun.rfind(',');
  const std::string before = comma == std::string::npos ? "" : begun.substr(0, comma + 1);
  Candidates found;
  for (const Word& word : argument.words) found.push_back({before + word.word, ""});
  return found;
}

Candidates valuesOf(const Argument& argument, const std::string& begun) {
  if (argument.kind == ArgumentKind::Choice) return ofChoice(argument, begun);
  for (const FileSource& source : kFileSources) {
    if (source.kind == argument.kind) return filesThatBegin(begun, source.ending);
  }
  for (const Source& source : kSources) {
    if (source.kind == argument.kind) return source.candidates(argument);
  }
  return {};
}

const Argument* optionOf(const Command* command, const std::string& name) {
  const auto isIt = [&](const Argument& argument) { return argument.name == name; };
  if (command != nullptr) {
    const auto own = std::find_if(command->arguments.begin(), command->arguments.end(), isIt);
    if (own != command->arguments.end()) return &*own;
  }
  const auto global = std::find_if(globalOptions().begin(), globalOptions().end(), isIt);
  return global == globalOptions().end() ? nullptr : &*global;
}

Candidates optionsOf(const Command* command, const SplitLine& given) {
  Candidates found;
  const auto add = [&](const Argument& argument) {
    const bool used =
        std::any_of(given.options.begin(), given.options.end(),
                    [&](const SplitLine::Option& option) { return option.name == argument.name; });
    if (argument.isOption() && !used) found.push_back({argument.name, argument.help});
  };
  if (command != nullptr) std::for_each(command->arguments.begin(), command->arguments.end(), add);
  std::for_each(globalOptions().begin(), globalOptions().end(), add);
  found.push_back({"--help", "Show the help"});
  found.push_back({"--version", "Show the tool's version"});
  return found;
}

// The argument that the next positional word is for, or null.
const Argument* nextPositional(const Command& command, std::size_t given) {
  for (const Argument& argument : command.arguments) {
    if (argument.isOption()) continue;
    if (given == 0 || argument.presence == Presence::Repeated) return &argument;
    --given;
  }
  return nullptr;
}

Candidates unfiltered(const std::vector<std::string>& before, const std::string& current) {
  const SplitLine given = splitLine(before);
  ResolvedCommand resolved;
  if (!given.words.empty()) resolved = resolveCommand(given.words);
  if (given.lacksValue) {
    const Argument* option = optionOf(resolved.command, given.options.back().name);
    return option == nullptr ? Candidates{} : valuesOf(*option, current);
  }
  if (const std::size_t equals = current.find('=');
      current.starts_with("--") && equals != std::string::npos) {
    const Argument* option = optionOf(resolved.command, current.substr(0, equals));
    Candidates values =
        option == nullptr ? Candidates{} : valuesOf(*option, current.substr(equals + 1));
    for (Candidate& value : values) value.word.insert(0, current.substr(0, equals + 1));
    return values;
  }
  if (current.starts_with("-")) return optionsOf(resolved.command, given);
  if (resolved.command == nullptr) {
    Candidates words;
    for (const Continuation& next : continuationsOf(resolved.words)) {
      words.push_back({next.word, next.help});
    }
    return words;
  }
  const Argument* argument = nextPositional(*resolved.command, given.words.size() - resolved.used);
  return argument == nullptr ? Candidates{} : valuesOf(*argument, current);
}

constexpr const char* kBash = R"(# bash completion for perixctl

# The words before the cursor, with those put together that bash cuts at '=' and ':'.
_perixctl_words() {
  local i word glue=
  _perixctl_line=()
  for ((i = 1; i <= COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == [=:] || -n $glue ]] && ((${#_perixctl_line[@]} > 0)); then
      _perixctl_line[-1]+=$word
    else
      _perixctl_line+=("$word")
    fi
    [[ $word == [=:] ]] && glue=1 || glue=
  done
}

# Sets `_perixctl_reply` to a name as it stands inside the open quotation mark $1, or outside of any,
# so that bash reads it back as the same name and runs nothing in it.
_perixctl_quote() {
  local i sign
  if [[ -z $1 ]]; then
    printf -v _perixctl_reply %q "$2"
    return
  fi
  _perixctl_reply=
  for ((i = 0; i < ${#2}; i++)); do
    sign=${2:i:1}
    case $1$sign in
      \'\') sign="'\\''" ;;
      \"\!) sign="\"'!'\"" ;;
      \"[\"\\\$\`]) sign=\\$sign ;;
    esac
    _perixctl_reply+=$sign
  done
}

_perixctl() {
  local -a _perixctl_line
  local last cut= word help quote= _perixctl_reply
  _perixctl_words
  last=${_perixctl_line[-1]-}
  [[ $last == [\"\']* ]] && quote=${last:0:1}
  last=${last#[\"\']}
  last=${last//"'\\''"/"'"}
  last=${last//"\"'!'\""/!}
  _perixctl_line[-1]=${last//\\/}
  [[ -z $quote && $last == *[=:]* ]] && cut=${last%"${last##*[=:]}"}
  COMPREPLY=()
  while IFS=$'\t' read -r word help; do
    _perixctl_quote "$quote" "${word#"$cut"}"
    COMPREPLY+=("$_perixctl_reply")
  done < <(perixctl complete -- "${_perixctl_line[@]}" 2>/dev/null)
  [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *[=/] ]] && compopt -o nospace
}
complete -F _perixctl perixctl
)";

constexpr const char* kZsh = R"(#compdef perixctl
_perixctl() {
  local line
  local -a offers
  for line in "${(@f)$(perixctl complete -- "${(@Q)words[2,CURRENT]}" 2>/dev/null)}"; do
    [[ -n $line ]] && offers+=("${${line%%$'\t'*}//:/\\:}:${line#*$'\t'}")
  done
  _describe perixctl offers
}
if [[ $funcstack[1] == _perixctl ]]; then _perixctl "$@"; else compdef _perixctl perixctl; fi
)";

constexpr const char* kFish = R"(# fish completion for perixctl
complete -c perixctl -f -a '(perixctl complete -- (commandline -opc)[2..-1] (commandline -ct) 2>/dev/null)'
)";

struct Script {
  const char* shell;
  const char* text;
};
constexpr std::array kScripts = {Script{"bash", kBash}, Script{"zsh", kZsh}, Script{"fish", kFish}};

}  // namespace

std::vector<Candidate> candidatesFor(const std::vector<std::string>& words) noexcept try {
  const std::string current = words.empty() ? "" : words.back();
  Candidates found =
      unfiltered({words.begin(), words.empty() ? words.end() : words.end() - 1}, current);
  std::erase_if(found, [&](const Candidate& candidate) {
    return candidate.word.empty() || !candidate.word.starts_with(current);
  });
  return found;
} catch (const std::exception&) {
  return {};  // a word before is wrong, or the service does not answer
}

const char* completionScript(const std::string& shell) {
  for (const Script& script : kScripts) {
    if (script.shell == shell) return script.text;
  }
  return "";
}

}  // namespace zq::ctl
