// The words with which a command line may go on.
#pragma once

#include <string>
#include <vector>

namespace zq::ctl {

/// A word that a shell may offer.
struct Candidate {
  std::string word;
  std::string help;  ///< may be empty
};

/// The candidates for the last of `words`, which stand behind the program's name and of which the
/// last may be empty or cut. Asks a running service for the names that it knows. Starts no service,
/// writes nothing, throws nothing.
std::vector<Candidate> candidatesFor(const std::vector<std::string>& words) noexcept;

/// The script that has a shell ("bash", "zsh", "fish") ask 'perixctl complete'.
const char* completionScript(const std::string& shell);

}  // namespace zq::ctl
