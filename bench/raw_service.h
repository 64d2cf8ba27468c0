// The bench service's list and events by sd-bus alone, for a client by sd-bus alone.
#pragma once

namespace zq::bench {

/// Claims kRawName on the bus of ZQBUS_ADDRESS, says so on the readiness descriptor, and answers
/// until it is killed: "getDeviceList" as the bench service does, and "sendEvents" (how many, how
/// many microseconds apart) with nothing before it sends them. Returns an exit code when it cannot.
[[nodiscard]] int runRawService();

/// Serves the same methods on one end of a socket pair, until the other end is closed.
void serveRawEnd(int socket);

}  // namespace zq::bench
