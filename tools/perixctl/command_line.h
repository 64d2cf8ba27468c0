// From the words of a command line to a command and its arguments.
#pragma once

#include <string>
#include <vector>

#include "tools/perixctl/command.h"

namespace zq::ctl {

struct CommandLine {
  Globals globals;
  const Command* command = nullptr;  ///< null when only `information` was asked for
  Arguments arguments;
  std::string information;  ///< help or version, ready to be written
};

/// A command line with its options apart from its other words, before the check of either.
struct SplitLine {
  struct Option {
    std::string name;
    std::optional<std::string> value;
  };
  std::vector<Option> options;
  std::vector<std::string> words;
  /// The last word is an option that still waits for its value.
  bool lacksValue = false;
};
SplitLine splitLine(const std::vector<std::string>& words);

/// A command and how many of the words name it. Words may be cut as long as they stay unambiguous,
/// and a noun alone stands for its list.
struct ResolvedCommand {
  std::string words;  ///< in full, also when they name a noun alone
  const Command* command = nullptr;
  std::size_t used = 0;
};
/// Throws CommandError (Usage), with a suggestion, for a word that leads nowhere.
ResolvedCommand resolveCommand(const std::vector<std::string>& words);

/// Parses the words behind the program's name. Throws CommandError (Usage) with a text that names
/// the mistake.
CommandLine parseCommandLine(const std::vector<std::string>& words);

}  // namespace zq::ctl
