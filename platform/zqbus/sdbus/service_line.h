// A service's connection to one client, past the bus: a direct line.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "service_connection.h"

namespace zq {

class ServiceLine : public ServiceConnection {
 public:
  /// Whether a line may stay, once its client has shaken hands; called under the loop's mutex.
  using Admit = std::function<bool()>;

  /// `client` is the client's unique name on the bus.
  ServiceLine(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
              std::string client, Admit admit);
  ~ServiceLine() override { --object().lines; }

  /// Whether the handshake with the client is complete; any thread.
  bool isReady() const { return isReady_; }

 private:
  void onCall(sd_bus_message* call) override REQUIRES(loop().mutex()) { receive(call); }
  void onSignal(sd_bus_message* signal) override REQUIRES(loop().mutex());
  ConnectionLoop::Clock::time_point nextDeadline() const override REQUIRES(loop().mutex());
  void onDeadline(ConnectionLoop::Clock::time_point now) override REQUIRES(loop().mutex());

  const Admit admit_;
  const ConnectionLoop::Clock::time_point handshakeDeadline_;
  std::atomic<bool> isReady_ = false;
};

/// Makes a socket pair for a line and passes the client's socket out through `handover`. Null when
/// that fails.
SdBus makeLine(int handover);

}  // namespace zq
