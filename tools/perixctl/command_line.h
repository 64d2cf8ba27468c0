// From the words of a command line to a command and its arguments.
#pragma once

#include <string>

#include "tools/perixctl/command.h"

namespace zq::ctl {

struct CommandLine {
  Globals globals;
  const Command* command = nullptr;  ///< null when only `information` was asked for
  Arguments arguments;
  std::string information;  ///< help or version, ready to be written
};

/// Parses the arguments of main(). Throws CommandError (Usage) with a text that says what is wrong.
CommandLine parseCommandLine(int argc, const char* const* argv);

/// Whether the words ask for JSON, well-formed or not.
bool asksForJson(int argc, const char* const* argv);

}  // namespace zq::ctl
