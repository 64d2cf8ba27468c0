// A service's end of a direct line.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "service_connection.h"

namespace zq {

class ServiceLine : public ServiceConnection {
 public:
  /// Whether a line may stay, now that its client has greeted; under the lock of the line.
  using Admit = std::function<bool()>;

  /// `client` is the unique name of the client at the other end.
  ServiceLine(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
              std::string client, Admit admit);

  /// Whether the client has been through the handshake; from any thread.
  bool greeted() const { return greeted_; }

 private:
  void onCall(sd_bus_message* call) override { receive(call); }
  void onSignal(sd_bus_message* signal) override;
  ConnectionLoop::Clock::time_point nextDeadline() const override;
  void onDeadline(ConnectionLoop::Clock::time_point now) override;

  const Admit admit_;
  const ConnectionLoop::Clock::time_point patience_;  // for the handshake
  std::atomic<bool> greeted_ = false;
};

/// Makes a line, whose other end it sends on `handover`. Null when that is not possible.
SdBus makeLine(int handover);

}  // namespace zq
