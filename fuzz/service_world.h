// A service on a bus whose broker is played by hand, and how to reach it.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "fuzz/fake_broker.h"
#include "zqbus/zqbus_service.h"

namespace zq::fuzz {

wire::Message openCall();
wire::Message perixCall();

/// A service that answers each call with the call's own arguments. For one thread, beside the
/// broker's.
class ServiceWorld {
 public:
  explicit ServiceWorld(FakeBroker& broker) : broker_(broker) {}

  /// Claims the name; anew after the bus was lost.
  void claim();
  bool isClaimed() const { return service_ != nullptr; }
  Connection& bus() { return *connection_; }
  /// Sends a call through the bus and waits for its answer. Nothing when the service has left the
  /// bus.
  std::optional<wire::Message> ask(wire::Message call, std::span<const int> descriptors = {});
  /// Has the service open a line, past the handshake.
  wire::Peer openLine();
  /// Whether the service answers a call on a line. False when it has ended the line.
  bool answersOn(wire::Peer& line);
  /// What the broker hears; for its handler.
  void receive(const std::shared_ptr<Connection>& from, const wire::Message* message);

 private:
  FakeBroker& broker_;
  std::unique_ptr<ZQBusService> service_;
  uint32_t serial_ = 1000;  // behind those that an input gives its own messages
  std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<Connection> connection_;  // the service's to the bus
  bool ended_ = false;
  uint32_t asked_ = 0;
  std::optional<wire::Message> answer_;
};

}  // namespace zq::fuzz
