// A near word in place of a wrong one.
#pragma once

#include <string>
#include <vector>

#include "tools/perixctl/words.h"

namespace zq::ctl {

/// The word that is most like `wrong`, when one of them is near enough to be meant; else empty.
std::string nearest(const std::string& wrong, const std::vector<std::string>& words);

/// "; did you mean 'WORD'?", or nothing.
std::string didYouMean(const std::string& wrong, const std::vector<std::string>& words);

std::vector<std::string> textsOf(Words words);

}  // namespace zq::ctl
