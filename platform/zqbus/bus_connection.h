// The client's connection to the bus: who owns which name, and who is to be trusted.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "channel.h"

namespace zq {

class BusConnection : public Channel {
 public:
  /// Connects to the bus of ZQBUS_ADDRESS or to the user's session bus, blocking until `deadline`
  /// at most. Null, `error` in words, when that fails. `deliveries` outlives the connection.
  static std::shared_ptr<BusConnection> open(DeliveryQueue& deliveries, Clock::time_point deadline,
                                             std::string& error);
  using Channel::Channel;
  ~BusConnection() override;

  /// The unique name of the process that owns `service`, empty when nobody does; asks the bus.
  std::string ownerOf(const std::string& service);
  /// Whether the process of that unique name runs as this user or as root; asks the bus.
  bool isTrusted(const std::string& uniqueName);
  /// Whether the process of that unique name is still there, or at least nobody can tell that it is
  /// not; asks the process.
  bool mayBeAlive(const std::string& uniqueName);
  /// Binds to a service's owner, which dies when it loses the name; it is dead already when the
  /// name has changed hands meanwhile.
  std::shared_ptr<Peer> bind(const std::string& service, const std::string& owner);

 private:
  struct NameOwner {
    SdBusSlot match;
    std::string owner;
    uint64_t changes = 0;
  };

  static int onNameOwnerChanged(sd_bus_message* message, void* connection, sd_bus_error* error);
  void onConnectionLost() override;
  void setOwner(const std::string& service, const std::string& owner);
  void track(const std::string& service);
  std::shared_ptr<ZQBusMessage> askBus(const char* method, const std::string& name,
                                       const CallExtras& extras = {});

  // Under the reader's lock.
  std::map<std::string, NameOwner> owners_;
  std::map<std::string, bool> trust_;  // by unique name, which a bus never gives twice
};

}  // namespace zq
