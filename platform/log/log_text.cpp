#include "platform/log/log_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace zq {
namespace {

constexpr std::size_t kLongestText = 8 * 1024;
constexpr std::size_t kLongestCharacter = 4;

bool isControl(unsigned char character) {
  return (character < 0x20) | (character == 0x7f);
}

bool continuesCharacter(unsigned char byte) {
  return (byte & 0xc0) == 0x80;
}

}  // namespace

// Goes on to the end in bytes rather than stopping at the first: so it becomes vector instructions.
bool holdsControl(std::string_view text) {
  unsigned char holds = 0;
  for (const char character : text) holds |= isControl(character);
  return holds != 0;
}

std::string controlEscaped(std::string_view text) {
  std::string result;
  for (const char character : text) {
    if (character == '\n') {
      result += "\\n";
    } else if (isControl(character)) {
      std::array<char, 5> code;
      std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned>(character));
      result += code.data();
    } else {
      result += character;
    }
  }
  return result;
}

std::string formattedAndCut(std::size_t length, const char* format, va_list arguments) {
  // One byte more than stays tells whether the cut would split a character.
  std::string text(std::min(length, kLongestText + 1), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  if (length <= kLongestText) return text;
  std::size_t kept = kLongestText;
  while (kept > kLongestText - kLongestCharacter && continuesCharacter(text[kept])) --kept;
  text.resize(kept);
  return text + "... (" + std::to_string(length - kept) + " bytes left out)";
}

}  // namespace zq
