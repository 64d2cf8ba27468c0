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

/// A command: parsing, help, completion and the manual are all made from these.
struct Command {
  std::string words;  ///< nouns, then the verb: "device network add"
  std::vector<Argument> arguments;
  std::string help;  ///< one sentence, without its full stop
  /// Does it. Throws CommandError when it cannot be done.
  std::function<Outcome(Run&)> execute;
};

/// A command that is one operation of the service's, whose result says whether it was done.
std::function<Outcome(Run&)> status(int (*operation)(Run&));
/// A command that is one operation with a text for an answer.
std::function<Outcome(Run&)> answer(std::string (*operation)(Run&));
/// A command that is one operation with a number for an answer, shown under `member`.
std::function<Outcome(Run&)> value(const char* member, int (*operation)(Run&));
/// A command that is one operation sent without waiting for its own answer.
std::function<Outcome(Run&)> report(void (*operation)(Run&));

/// Every command, family by family. Built at first use, never changed.
const std::vector<Command>& commandTable();

/// Groups of commands, one behind the other.
std::vector<Command> joined(std::initializer_list<std::vector<Command>> groups);

/// A noun that several commands begin with.
struct Family {
  std::string words;
  std::string help;
};
const std::vector<Family>& commandFamilies();

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
std::vector<Command> documentationCommands();

// Arguments that several families take.
Argument desktopArgument();
Argument optionalDesktopArgument();
Argument vidPidArgument();
Argument sourceArgument();

}  // namespace zq::ctl
