#include "platform/text/utf8.h"

#include <utf8.h>

namespace zq {
namespace {

constexpr std::size_t kLongestCharacter = 4;

bool continuesCharacter(char byte) {
  return utf8::internal::is_trail(byte);
}

}  // namespace

std::size_t wellFormedLength(std::string_view text) noexcept {
  return static_cast<std::size_t>(utf8::find_invalid(text.begin(), text.end()) - text.begin());
}

bool isUtf8(std::string_view text) noexcept {
  return wellFormedLength(text) == text.size();
}

char32_t takeCharacter(std::string_view& text) noexcept {
  const auto* at = text.begin();
  const char32_t codePoint = utf8::unchecked::next(at);
  text.remove_prefix(static_cast<std::size_t>(at - text.begin()));
  return codePoint;
}

bool isNoncharacter(char32_t codePoint) noexcept {
  return (codePoint & 0xFFFE) == 0xFFFE || (codePoint >= 0xFDD0 && codePoint <= 0xFDEF);
}

std::string_view cutText(std::string_view text, std::size_t most) noexcept {
  if (text.size() <= most) return text;
  std::size_t kept = most;
  while (kept > 0 && most - kept < kLongestCharacter && continuesCharacter(text[kept])) --kept;
  return text.substr(0, kept);
}

}  // namespace zq
