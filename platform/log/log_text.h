// Texts of a bounded length for the log.
#pragma once

#include <cstdarg>
#include <string>

namespace zq {

/// The text that printf would write, whose length is `length` bytes: its first 8 KiB, and the
/// number of bytes left out. No character of UTF-8 is split, and no more than that is allocated.
[[gnu::format(printf, 2, 0)]] std::string formattedAndCut(std::size_t length, const char* format,
                                                          va_list arguments);

}  // namespace zq
