// The help of the tool, its nouns and its commands, made from the command table.
#pragma once

#include <string>
#include <vector>

#include "tools/perixctl/command.h"

namespace zq::ctl {

/// The help of a command, of a noun or, for no words, of the tool.
std::string helpFor(const std::string& words);

/// "perixctl device connect [OPTIONS] DESKTOP DEVICE"
std::string usageOf(const Command& command);

/// The arguments in it, each with a blank before it.
std::string argumentsOf(const Command& command);

/// An argument as usage lines show it: "DESKTOP", "[--file FILE]", "PIPE ...".
std::string synopsisOf(const Argument& argument);
/// The same without the brackets that tell how often it is given.
std::string bareSynopsisOf(const Argument& argument);

/// A call of the command that the parser accepts.
std::string exampleOf(const Command& command);

/// The exit codes with which a command may end, and their meanings.
struct ExitCodeHelp {
  int code;
  const char* help;
};
std::vector<ExitCodeHelp> exitCodesOf(Asks asks);

std::string versionText();

/// The manual page, for man(1).
std::string manualPage();

}  // namespace zq::ctl
