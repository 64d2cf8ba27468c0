// The programs of the peers, in the directory of this program, and measured from here.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/embedded/child_process.h"

namespace zq::bench {

/// One peer: its service and its client, each a process, on the bus of ZQBUS_ADDRESS.
class PeerProcess {
 public:
  /// Starts both and waits for the service. Throws std::runtime_error when it does not come up.
  explicit PeerProcess(const std::string& program);
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  /// The library's name.
  const std::string& name() const { return name_; }
  /// Has the client make `batch` calls: the microseconds that one took, by the client's own clock.
  /// Throws std::runtime_error when a call failed.
  double measure(int batch) const;

 private:
  const std::string name_;
  std::unique_ptr<ChildProcess> service_;
  OwnedDescriptor socket_;
  std::unique_ptr<ChildProcess> client_;
};

/// All peers that were built, started, in the order of their names.
std::vector<std::unique_ptr<PeerProcess>> startPeers(const std::string& thisProgram);

}  // namespace zq::bench
