// Texts as the log writes them: on one line, of a bounded length.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

namespace zq {

/// Whether `text` has control characters, which `controlEscaped` replaces.
bool holdsControl(std::string_view text);

/// `text` with "\n" and "\x1b" in place of control characters. Texts come from devices and from
/// desktops: none may begin a line of its own, nor reach a reader's terminal as a command.
std::string controlEscaped(std::string_view text);

/// What printf would write, where it is `length` bytes long: the first 8 KiB of it, and how many
/// bytes are left out. No character of UTF-8 is split, and no more than that is allocated.
[[gnu::format(printf, 2, 0)]] std::string formattedAndCut(std::size_t length, const char* format,
                                                          va_list arguments);

}  // namespace zq
