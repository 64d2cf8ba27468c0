// Threads of the library in somebody else's program.
#pragma once

#include <functional>
#include <thread>

namespace zq {

/// Starts a thread that handles no signals but those of its own faults: the others are the
/// program's business. The caller's are as before, whether the thread starts or not. Throws
/// std::system_error when there can be none. `name`, a literal of at most 15 characters, is
/// what a debugger shows.
std::thread startLibraryThread(const char* name, std::function<void()> run);

}  // namespace zq
