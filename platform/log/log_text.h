// Texts of a bounded length for the log.
#pragma once

#include <cstdarg>
#include <string>

namespace zq {

/// The text that printf would write, where it is `length` bytes long: its first 8 KiB, and the
/// number of bytes that are left out. The cut splits no character of UTF-8, and no more memory than
/// that is allocated.
[[gnu::format(printf, 2, 0)]] std::string formattedAndCut(std::size_t length, const char* format,
                                                          va_list arguments);

}  // namespace zq
