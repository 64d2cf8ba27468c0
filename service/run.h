// The program perix-devservice.
#pragma once

namespace zq::devservice {

/// Runs it to its end. The exit code: 0 after SIGTERM, SIGINT, "stop" or a good --check; 1 when the
/// names cannot be had or the command line is wrong; 2 for a scenario with mistakes; 3 when the bus
/// is lost.
int run(int argc, char** argv);

}  // namespace zq::devservice
