#include "platform/text/escape.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platform/text/utf8.h"

namespace zq {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

// Beyond ASCII: the second block of control characters, which some terminals obey, the marks,
// embeddings, overrides and isolates of bidirectional text, and Unicode's own ends of lines.
constexpr std::array kHarmful = {
    Range{0x80, 0x9f},     Range{0x61c, 0x61c},   Range{0x200e, 0x200f},
    Range{0x2028, 0x202e}, Range{0x2066, 0x2069},
};

bool isControl(unsigned char byte) {
  return (byte < 0x20) | (byte == 0x7f);
}

bool isHarmful(char32_t codePoint) {
  return std::any_of(kHarmful.begin(), kHarmful.end(), [codePoint](const Range& range) {
    return codePoint >= range.first && codePoint <= range.last;
  });
}

void appendCode(std::string& to, const char* format, unsigned value) {
  std::array<char, 16> code;
  std::snprintf(code.data(), code.size(), format, value);
  to += code.data();
}

// `bytes` are those of the character.
void appendCharacter(std::string& to, char32_t codePoint, std::string_view bytes, bool keepLines) {
  if (codePoint == U'\n') {
    to += keepLines ? "\n" : "\\n";
  } else if (codePoint < 0x80 && isControl(static_cast<unsigned char>(codePoint))) {
    appendCode(to, "\\x%02x", codePoint);
  } else if (isHarmful(codePoint)) {
    appendCode(to, "\\u%04x", codePoint);
  } else {
    to += bytes;
  }
}

std::string escapedText(std::string_view text, bool keepLines) {
  std::string result;
  while (!text.empty()) {
    std::string_view wellFormed = text.substr(0, wellFormedLength(text));
    text.remove_prefix(wellFormed.size());
    while (!wellFormed.empty()) {
      const std::string_view before = wellFormed;
      const char32_t codePoint = takeCharacter(wellFormed);
      appendCharacter(result, codePoint, before.substr(0, before.size() - wellFormed.size()),
                      keepLines);
    }
    if (text.empty()) break;
    appendCode(result, "\\x%02x", static_cast<unsigned char>(text[0]));
    text.remove_prefix(1);
  }
  return result;
}

}  // namespace

// Goes on to the end in bytes rather than stopping at the first: so it becomes vector instructions.
bool mayNeedEscape(std::string_view text) noexcept {
  unsigned char holds = 0;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    holds |= isControl(byte) | (byte >= 0x80);
  }
  return holds != 0;
}

std::string escaped(std::string_view text) {
  return escapedText(text, false);
}

std::string escapedLines(std::string_view text) {
  return escapedText(text, true);
}

}  // namespace zq
