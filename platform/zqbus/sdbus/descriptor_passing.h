// Descriptors as messages on a unix socket.
#pragma once

namespace zq {

/// Sends a copy of `descriptor` without blocking; 0 or a negative error number.
[[nodiscard]] int sendDescriptor(int socket, int descriptor);

/// Receives the descriptor that has arrived on `socket`, without blocking. The caller closes it.
/// Negative when no descriptor has arrived, or several, which are closed then.
[[nodiscard]] int receiveDescriptor(int socket);

}  // namespace zq
