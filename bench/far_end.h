// Processes at the other end of a socket pair: the least that a round trip can cost, and a call by
// sd-bus alone.
#pragma once

#include "bench/raw_bus.h"
#include "tools/embedded/child_process.h"

namespace zq::bench {

/// A process at the other end of a socket pair. It forks, so make it before anything starts a
/// thread.
class FarEnd {
 public:
  /// `serve` runs in that process until this end is closed. Throws std::runtime_error.
  explicit FarEnd(void (*serve)(int socket));
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;
  ~FarEnd();

  /// This end.
  int socket() const { return socket_.get(); }

 private:
  OwnedDescriptor socket_;
  pid_t child_ = -1;
};

/// Sends back every packet of 64 bytes.
class EchoProcess {
 public:
  EchoProcess();
  /// Sends a packet and waits for it. Throws std::runtime_error when it does not come back.
  void pingPong() const;

 private:
  FarEnd end_;
};

/// The methods of the raw service by sd-bus on a socket pair: no bus, one thread at each end, no
/// lock, no log.
class RawPair {
 public:
  RawPair();
  sd_bus* bus() const { return bus_.get(); }

 private:
  FarEnd end_;
  RawBus bus_;
};

}  // namespace zq::bench
