#include "tools/perixctl/shell_command.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace zq::ctl {
namespace {

/// Whether no shell has a meaning for the byte anywhere in a word.
bool isPlain(char byte) {
  constexpr std::string_view kPlainSigns = "-_./:,@%+";
  return std::isalnum(static_cast<unsigned char>(byte)) != 0 ||
         kPlainSigns.find(byte) != std::string_view::npos;
}

}  // namespace

std::string shellWord(const std::string& text) {
  if (!text.empty() && std::all_of(text.begin(), text.end(), isPlain)) return text;
  std::string word = "'";
  for (const char byte : text) word += byte == '\'' ? "'\\''" : std::string(1, byte);
  return word + "'";
}

std::string shellCommand(const std::string& words, const std::vector<std::string>& arguments) {
  const bool anyOption =
      std::any_of(arguments.begin(), arguments.end(),
                  [](const std::string& argument) { return argument.starts_with("--"); });
  std::string command = "perixctl " + words + (anyOption ? " --" : "");
  for (const std::string& argument : arguments) command += ' ' + shellWord(argument);
  return command;
}

}  // namespace zq::ctl
