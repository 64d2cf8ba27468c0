#include "tools/perixctl/words.h"

#include <algorithm>

namespace zq::ctl {

const char* wordFor(Words words, int64_t number, const char* otherwise) {
  const auto found = std::find_if(words.begin(), words.end(),
                                  [number](const Word& word) { return word.number == number; });
  return found == words.end() ? otherwise : found->word;
}

std::optional<int64_t> numberFor(Words words, std::string_view word) {
  const auto found = std::find_if(words.begin(), words.end(),
                                  [word](const Word& candidate) { return candidate.word == word; });
  if (found == words.end()) return std::nullopt;
  return found->number;
}

std::string listed(Words words) {
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) text += i + 1 < words.size() ? ", " : " or ";
    text += words[i].word;
  }
  return text;
}

std::string counted(std::size_t count, const std::string& thing) {
  return std::to_string(count) + ' ' + thing + (count == 1 ? "" : "s");
}

}  // namespace zq::ctl
