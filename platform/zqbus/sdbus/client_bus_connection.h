// The client's connection to the bus: who owns which name, and who is to be trusted.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client_connection.h"

namespace zq {

class ClientBusConnection : public ClientConnection {
 public:
  /// Connects to the bus of ZQBUS_ADDRESS or to the user's session bus, blocking until `deadline`
  /// at most. Null, `error` in words, when that fails. `deliveries` outlives the connection.
  /// `onLoss` is called under the connection's lock when that is lost; it must not wait.
  static std::shared_ptr<ClientBusConnection> open(DeliveryQueue& deliveries,
                                                   Clock::time_point deadline,
                                                   std::function<void()> onLoss,
                                                   std::string& error);
  ClientBusConnection(SdBus connection, DeliveryQueue& deliveries, std::function<void()> onLoss);
  ~ClientBusConnection() override;

  /// The unique name of the process that owns `service`, empty when nobody does; asks the bus, and
  /// blocks for 25 s at most.
  std::string ownerOf(const std::string& service);
  /// Whether the process of that unique name runs as this user or as root; asks the bus when it did
  /// not before, and blocks for 25 s at most.
  bool isTrusted(const std::string& uniqueName);
  /// Whether the process of that unique name is still there, or at least nobody can tell that it is
  /// not; asks the process, and blocks for 1 s at most.
  bool mayBeAlive(const std::string& uniqueName);
  /// Binds to a service's owner, which dies when it loses the name; it is dead already when the
  /// name has changed hands meanwhile.
  std::shared_ptr<Peer> bind(const std::string& service, const std::string& owner);

  /// From now on, `onTakenOver` is delivered once another process than `process` owns the name of
  /// `service`. A name without an owner changes nothing, nor does `owner`, the unique name of
  /// `process`; empty when that is not known. Does not block.
  void follow(const std::string& service, pid_t process, const std::string& owner,
              std::function<void()> onTakenOver);

 private:
  struct NameOwner {
    std::string owner;
    uint64_t changes = 0;
  };
  struct Followed {
    std::string service;
    pid_t process;
    std::string owner;  // the unique name of `process`, as far as it is known
    std::function<void()> onTakenOver;
  };
  struct OwnerAnswer;
  struct ProcessAnswer;
  struct TrustAnswer;

  void onDaemonSignal(sd_bus_message* signal) override;
  void onConnectionLost() override;
  void setOwner(const std::string& service, const std::string& owner);
  void checkFollowed(const std::string& service, const std::string& owner);
  void compareProcess(const std::string& service, const std::string& owner, pid_t process);
  bool track(const std::string& service);
  std::shared_ptr<ZQBusMessage> askAndWait(const char* method, const std::string& name,
                                           const CallExtras& extras = {});

  const std::function<void()> onLoss_;
  // Under the loop's lock.
  std::map<std::string, NameOwner> owners_;
  std::vector<Followed> followed_;
};

}  // namespace zq
