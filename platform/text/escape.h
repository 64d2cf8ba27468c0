// Texts of devices, desktops and services, made harmless for a log and for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace zq {

/// Whether `escaped` may change `text`: false means that it is printable ASCII.
bool mayNeedEscape(std::string_view text) noexcept;

/// `text` on one line, as UTF-8: "\n" for the end of a line, "\x1b" for other control characters of
/// ASCII and for bytes that are not UTF-8, "\u202e" for the control characters beyond ASCII and for
/// the characters that turn the direction of writing. So no text begins a line of its own, commands
/// a terminal, or shows in another order than it has.
std::string escaped(std::string_view text);

/// As `escaped`, with the ends of lines kept.
std::string escapedLines(std::string_view text);

}  // namespace zq
