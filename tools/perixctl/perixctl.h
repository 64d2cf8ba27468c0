// perixctl, the command line of the peripheral service, as a library.
#pragma once

namespace zq::ctl {

/// Runs the command line and returns the process's exit code. Call it once, from main().
int runPerixctl(int argc, const char* const* argv);

}  // namespace zq::ctl
