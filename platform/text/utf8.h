// UTF-8: the one place that knows which bytes make a character.
#pragma once

#include <cstddef>
#include <string_view>

namespace zq {

/// The number of bytes at the front of `text` that are well-formed UTF-8.
std::size_t wellFormedLength(std::string_view text) noexcept;

/// Whether all of `text` is well-formed UTF-8; U+0000 and the noncharacters count as such.
bool isUtf8(std::string_view text) noexcept;

/// Takes the first character off `text`, which begins with a well-formed one.
char32_t takeCharacter(std::string_view& text) noexcept;

/// Whether Unicode reserves the code point: U+FDD0 to U+FDEF, and the last two of each plane.
bool isNoncharacter(char32_t codePoint) noexcept;

/// The beginning of `text` that has at most `most` bytes and splits no character.
std::string_view cutText(std::string_view text, std::size_t most) noexcept;

}  // namespace zq
