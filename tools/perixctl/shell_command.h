// Commands that people paste into a shell.
#pragma once

#include <string>
#include <vector>

namespace zq::ctl {

/// The text as one word of a shell, quoted where the shell would read anything else into it.
std::string shellWord(const std::string& text);

/// A command of this tool: "perixctl device connect 'My PC' 3".
std::string shellCommand(const std::string& words, const std::vector<std::string>& arguments);

}  // namespace zq::ctl
