// The library's threads in a program that is not ours.
#pragma once

#include <functional>
#include <thread>

namespace zq {

/// Starts a thread that handles no signals but those of its own faults: other signals are for the
/// program's threads. The caller's signal mask stays as it is. Throws std::system_error when no
/// thread can be started. `name`, a literal of at most 15 characters, is shown by debuggers.
std::thread startLibraryThread(const char* name, std::function<void()> run);

}  // namespace zq
