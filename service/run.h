// The program perix-devservice.
#pragma once

namespace zq::devservice {

/// Runs the program to its end. The exit code is 0 after SIGTERM, SIGINT, "stop" or a good --check,
/// 1 when the service cannot own its names or the command line is wrong, 2 for a scenario with
/// mistakes, and 3 when the bus is lost.
int run(int argc, char** argv);

}  // namespace zq::devservice
