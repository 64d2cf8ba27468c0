// Numbers of the service and of the tool, and the words that people use for them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace zq::ctl {

/// A number and its word. The number of an enumeration's value is that of its underlying type.
struct Word {
  int64_t number;
  const char* word;

  constexpr Word(int64_t number, const char* word) : number(number), word(word) {}
  template <typename Enumeration>
  requires std::is_enum_v<Enumeration>
  constexpr Word(Enumeration value, const char* word)
      : number(static_cast<int64_t>(value)), word(word) {}
};

/// The table of these values of the service, with their public texts.
template <typename... Values>
constexpr auto wordsOf(Values... values) {
  return std::array{Word{values, TextOf(values)}...};
}

/// A table of words, none of them twice.
using Words = std::span<const Word>;

/// The word for `number`, or `otherwise` when the table lacks it.
const char* wordFor(Words words, int64_t number, const char* otherwise);
template <typename Enumeration>
requires std::is_enum_v<Enumeration>
const char* wordFor(Words words, Enumeration value, const char* otherwise) {
  return wordFor(words, static_cast<int64_t>(value), otherwise);
}

/// The number that `word` stands for; nothing when the table lacks it.
std::optional<int64_t> numberFor(Words words, std::string_view word);

/// The words, "ask, allow or forbid".
std::string listed(Words words);

/// "1 desktop", "2 desktops".
std::string counted(std::size_t count, const std::string& thing);

}  // namespace zq::ctl
