// What the proxy needs of the operating system.
#pragma once

#include <string>

namespace zq {

/// Sets `path` to the user's data directory of this application and returns true:
/// "$XDG_STATE_HOME/perix", else "$HOME/.local/state/perix", created with mode 0700 when absent.
/// False, `path` empty, when there is no such place or it cannot be created, and in a program that
/// runs set-user-ID or with capabilities. A directory that exists stays as it is, and may be
/// others'. Any thread; never throws.
bool GetAppDataPath(std::string& path);

/// Blocks the calling thread for `milliseconds`. The one place where the library waits for time to
/// pass: a program that defines this function itself, linked before the library, shortens the
/// waits.
void Sleep(unsigned int milliseconds);

}  // namespace zq
