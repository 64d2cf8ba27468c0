// The service's own commands.
#pragma once

#include <string>

#include "tools/perixctl/run.h"

namespace zq::ctl {

/// Has the service run a command and waits for the response, 3 s at most. Throws CommandError when
/// the command is refused, and when there is no response.
CmdResponse askCommand(Run& run, const std::string& command);

}  // namespace zq::ctl
