// The session bus of another machine, over ssh.
#pragma once

#include <string>

namespace zq::ctl {

/// Has this process use the session bus of `host` ("box", "user@box"), through its broker. The bus
/// is reached by ssh with systemd-stdio-bridge at the other end, when the library connects; if
/// either fails, a line on standard error says why. Throws CommandError (Usage) for a name that ssh
/// would take for an option.
void useRemoteHost(const std::string& host);

}  // namespace zq::ctl
