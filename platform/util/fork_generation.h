// Distinguishes a process from the children that it forks.
#pragma once

namespace zq {

/// The number of forks between the program's first process and this process: a child's number
/// differs from its parent's. Takes no lock and no system call.
int forkGeneration();

}  // namespace zq
