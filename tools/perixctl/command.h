// One row of the command table.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "tools/perixctl/argument.h"
#include "tools/perixctl/outcome.h"
#include "tools/perixctl/run.h"

namespace zq::ctl {

/// Whether a command asks the service, and so may end without one.
enum class Asks { Service, Nobody };

/// A command: parsing, help, completion, the manual and the tests are all made from these.
struct Command {
  std::string words;  ///< nouns, then the verb: "device network add"
  std::vector<Argument> arguments;
  std::string help;  ///< one sentence, without its full stop
  /// Does it. Throws CommandError when it cannot be done.
  std::function<Outcome(Run&)> execute;
  Asks asks = Asks::Service;
  bool hidden = false;  ///< from help, completion and the manual: for scripts of the tool's own
};

/// A command that is one operation of the service's, whose result says whether it was done.
std::function<Outcome(Run&)> status(int (*operation)(Run&));
/// A command that is one operation with a text for an answer; `none` stands for an empty one.
std::function<Outcome(Run&)> answer(std::string (*operation)(Run&), const char* none);
/// A command that is one operation sent without waiting for its own answer.
std::function<Outcome(Run&)> report(void (*operation)(Run&));

/// Every command, family by family. Built at first use, never changed.
const std::vector<Command>& commandTable();

/// The options that every command takes.
const std::vector<Argument>& globalOptions();

/// Groups of commands, one behind the other.
std::vector<Command> joined(std::initializer_list<std::vector<Command>> groups);

/// A noun that several commands begin with.
struct Family {
  std::string words;
  std::string help;
};
const std::vector<Family>& commandFamilies();

/// The commands and nouns that may follow `words` ("" for the first word), each once, in the order
/// of the table: the word itself and its help.
struct Continuation {
  std::string word;
  std::string help;
};
std::vector<Continuation> continuationsOf(const std::string& words);
/// The command of these words, or null.
const Command* commandOf(const std::string& words);

// The families, each in its own file.
std::vector<Command> desktopCommands();
std::vector<Command> deviceCommands();
std::vector<Command> printerCommands();
std::vector<Command> channelCommands();
std::vector<Command> penCommands();
std::vector<Command> policyCommands();
std::vector<Command> joystickCommands();
std::vector<Command> diagnoseCommands();
std::vector<Command> serviceCommands();
std::vector<Command> monitorCommands();
std::vector<Command> traceCommands();
std::vector<Command> snapshotCommands();
std::vector<Command> whyCommands();
std::vector<Command> documentationCommands();

// Arguments that several families take.
Argument desktopArgument();
Argument optionalDesktopArgument();
Argument deviceArgument();
Argument printerArgument();
Argument vidPidArgument();

}  // namespace zq::ctl
