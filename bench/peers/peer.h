// A peer: the same tiny service, and a client that makes the same call, by another library. Each is
// a program of its own, a file here beside peer_main.cpp, so that no library meets another's
// threads or signals.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zq::bench {

/// Makes the call, `connectDevice(int32 desktop, uint16 device) -> int32`, blocking, as the library
/// makes it best. Throws when it fails.
class PeerClient {
 public:
  virtual ~PeerClient() = default;
  virtual int32_t connectDevice(int32_t desktop, uint16_t device) = 0;
};

inline constexpr char kPeerPath[] = "/org/zqbus/peer";
inline constexpr char kPeerInterface[] = "org.zqbus.peer";

/// Offers the service as `name` on the session bus (where the peer has no bus: at
/// peerSocket(name)), calls `ready`, and answers every call with 0 until the process is killed.
/// Throws when it cannot.
void servePeer(const std::string& name, const std::function<void()>& ready);

/// Connects to the service `name`. Throws when it cannot.
std::unique_ptr<PeerClient> connectPeer(const std::string& name);

/// A socket of this run, for a peer without a bus.
std::string peerSocket(const std::string& name);

/// What the measuring program writes to a client's socket: how many calls to make. It gets back
/// the microseconds that one took, as a double.
using PeerBatch = int32_t;

}  // namespace zq::bench
