#include "tools/perixctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <sstream>

#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

constexpr const char* kDescription = "Commands the service that redirects devices into desktops.";
constexpr const char* kFooter =
    "Exit codes: 0 done, 1 the service refused, 2 usage, 3 time-out, 8 no service, 10 not found.";

// A command's place in the parser, with room for its values.
struct Leaf {
  const Command* command;
  CLI::App* app;
  Arguments::Values values;
};

// The parser's tree of nouns and verbs, grown word by word.
class CommandTree {
 public:
  explicit CommandTree(CLI::App& root) { apps_[""] = &root; }

  CLI::App* at(const std::string& words) {
    CLI::App*& app = apps_[words];
    if (app == nullptr) {
      const std::size_t blank = words.rfind(' ');
      CLI::App* parent = at(blank == std::string::npos ? "" : words.substr(0, blank));
      parent->require_subcommand(1);
      app = parent->add_subcommand(words.substr(blank + 1));
    }
    return app;
  }

 private:
  std::map<std::string, CLI::App*> apps_;
};

void addArgument(Leaf& leaf, const Argument& argument) {
  std::vector<std::string>& values = leaf.values[argument.name];
  if (argument.kind == ArgumentKind::Flag) {
    leaf.app->add_flag_callback(
        argument.name, [&values] { values.assign(1, "on"); }, argument.help);
    return;
  }
  CLI::Option* option = leaf.app->add_option(argument.name, values, argument.help);
  option->required(argument.presence == Presence::Required ||
                   argument.presence == Presence::Repeated);
  if (argument.presence == Presence::Repeated) {
    option->expected(-1);
  } else {
    option->expected(1)->allow_extra_args(false)->multi_option_policy(
        CLI::MultiOptionPolicy::Throw);
  }
  const ArgumentKind kind = argument.kind;
  option->check([kind](const std::string& text) { return complaintAbout(kind, text); });
  option->type_name(argument.isOption() ? "VALUE" : "");
}

std::deque<Leaf> addCommands(CLI::App& app) {
  CommandTree tree(app);
  for (const Family& family : commandFamilies()) tree.at(family.words)->description(family.help);
  std::deque<Leaf> leaves;  // the parser refers to the values in place
  for (const Command& command : commandTable()) {
    Leaf& leaf = leaves.emplace_back(Leaf{&command, tree.at(command.words), {}});
    leaf.app->description(command.help);
    for (const Argument& argument : command.arguments) addArgument(leaf, argument);
  }
  return leaves;
}

CLI::Option* addGlobals(CLI::App& app, Globals& globals) {
  app.add_flag("--json", globals.json, "Write one JSON document (monitor, pen replay: one a line)");
  app.add_flag("--verbose", globals.verbose, "Say where the log is and why an operation failed");
  app.set_version_flag("--version", "perixctl " PERIXCTL_VERSION);
  return app
      .add_option("--embedded", globals.scenario,
                  "Run against a private bus and a development service with that scenario")
      ->expected(0, 1)
      ->type_name("[SCENARIO]");
}

void requireExactlyOneAlternative(const Leaf& leaf) {
  std::string names;
  std::size_t given = 0;
  for (const Argument& argument : leaf.command->arguments) {
    if (argument.presence != Presence::OneOf) continue;
    names += (names.empty() ? "" : " or ") + argument.name;
    given += leaf.values.at(argument.name).empty() ? 0 : 1;
  }
  if (!names.empty() && given != 1) {
    throw CommandError(ExitCode::Usage, "give exactly one of " + names);
  }
}

}  // namespace

CommandLine parseCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  CLI::App app(kDescription, "perixctl");
  app.footer(kFooter)->fallthrough();
  const CLI::Option* embedded = addGlobals(app, line.globals);
  std::deque<Leaf> leaves = addCommands(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream out;
    std::ostringstream complaint;
    if (app.exit(error, out, complaint) == 0) {
      line.information = out.str();
      return line;
    }
    throw CommandError(ExitCode::Usage, error.what());
  }
  line.globals.embedded = embedded->count() > 0;
  const auto chosen = std::find_if(leaves.begin(), leaves.end(),
                                   [](const Leaf& leaf) { return leaf.app->parsed(); });
  requireExactlyOneAlternative(*chosen);
  line.command = chosen->command;
  line.arguments = Arguments(std::move(chosen->values));
  return line;
}

bool asksForJson(int argc, const char* const* argv) {
  return std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
}

}  // namespace zq::ctl
