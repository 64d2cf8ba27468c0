#include "tools/perixctl/suggestion.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace zq::ctl {
namespace {

constexpr std::size_t kShortWord = 3;
// Two letters that changed places are two.
constexpr std::size_t kFewMistakes = 2;

// How many letters must be added, left out or replaced to make one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string nearest(const std::string& wrong, const std::vector<std::string>& words) {
  std::string best;
  std::size_t least =
      (wrong.size() <= kShortWord ? 1 : std::max(kFewMistakes, wrong.size() / 3)) + 1;
  for (const std::string& word : words) {
    const std::size_t apart = distance(wrong, word);
    if (apart >= least) continue;
    least = apart;
    best = word;
  }
  return best;
}

std::string didYouMean(const std::string& wrong, const std::vector<std::string>& words) {
  const std::string word = nearest(wrong, words);
  return word.empty() ? "" : "; did you mean '" + word + "'?";
}

std::vector<std::string> textsOf(Words words) {
  std::vector<std::string> texts;
  for (const Word& word : words) texts.emplace_back(word.word);
  return texts;
}

}  // namespace zq::ctl
