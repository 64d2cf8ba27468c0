// What a round trip between two processes costs at least.
#pragma once

#include "tools/embedded/child_process.h"

namespace zq::bench {

/// A process at the other end of a socket pair that sends back every packet of 64 bytes.
class EchoProcess {
 public:
  /// Forks, so make it before anything starts a thread. Throws std::runtime_error.
  EchoProcess();
  EchoProcess(const EchoProcess&) = delete;
  EchoProcess& operator=(const EchoProcess&) = delete;
  ~EchoProcess();

  /// Sends a packet and waits for it. Throws std::runtime_error when it does not come back.
  void pingPong() const;

 private:
  OwnedDescriptor socket_;
  pid_t child_ = -1;
};

}  // namespace zq::bench
