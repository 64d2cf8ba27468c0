// Services of the operating system for the proxy.
#pragma once

#include <string>

namespace zq {

/// Sets `path` to the user's data directory of this application and returns true:
/// "$XDG_STATE_HOME/perix", else "$HOME/.local/state/perix", created with mode 0700 when absent.
/// False, `path` empty, when neither variable is set or the directory cannot be created, and in a
/// program that runs set-user-ID or with capabilities. An existing directory stays as it is, and
/// may be another user's. Any thread; never throws.
bool GetAppDataPath(std::string& path);

/// Blocks the calling thread for `milliseconds`. The one place where the library waits for time to
/// pass: a program that defines this function itself, linked before the library, shortens the
/// waits.
void Sleep(unsigned int milliseconds);

}  // namespace zq
