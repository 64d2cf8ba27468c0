#include "platform/log/log_text.h"

#include <algorithm>
#include <cstdio>

#include "platform/text/utf8.h"

namespace zq {
namespace {

constexpr std::size_t kLongestText = 8 * 1024;

}  // namespace

std::string formattedAndCut(std::size_t length, const char* format, va_list arguments) {
  // One byte more than stays tells whether the cut would split a character.
  std::string text(std::min(length, kLongestText + 1), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  if (length <= kLongestText) return text;
  const std::size_t kept = cutText(text, kLongestText).size();
  text.resize(kept);
  return text + "... (" + std::to_string(length - kept) + " bytes left out)";
}

}  // namespace zq
