// The conversation of a client with the script that started it: a line in, a line out.
#pragma once

#include <string>

namespace zq::load {

/// Keeps the standard output for tell(): the library's greeting goes to /dev/null from now on. To
/// be called once, before the library is used. Throws std::runtime_error.
void takeStandardOutput();
/// Sends a line to the script. Any thread, after takeStandardOutput().
void tell(const std::string& line);
/// The next line of the script; false at the end. Blocks, and nothing wakes the thread meanwhile.
bool nextOrder(std::string& line);

}  // namespace zq::load
