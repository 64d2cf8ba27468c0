// Telling a process from the children that it forks.
#pragma once

namespace zq {

/// How many forks lie between this process and the program's first: differs between a process and
/// its child, and takes no lock and no system call.
int forkGeneration();

}  // namespace zq
