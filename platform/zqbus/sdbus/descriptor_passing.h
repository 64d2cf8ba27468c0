// Descriptors as messages on a unix socket.
#pragma once

namespace zq {

/// Sends a copy of `descriptor` without blocking; 0 or a negative error number.
[[nodiscard]] int sendDescriptor(int socket, int descriptor);

/// Takes the descriptor that has arrived on `socket`, without blocking. The caller's to close;
/// negative when there is none, or when more came along, all of which are closed then.
[[nodiscard]] int receiveDescriptor(int socket);

}  // namespace zq
