// The client's connection to the bus: the owners of names, and which of them are trusted.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client_connection.h"

namespace zq {

class ClientBusConnection : public ClientConnection {
 public:
  /// Connects to the bus of ZQBUS_ADDRESS or to the user's session bus, blocking until `deadline`
  /// at most. Null, `error` in words, when that fails. `deliveries` outlives the connection.
  /// `onLoss` is called under the loop's mutex when the connection is lost; it must not wait.
  static std::shared_ptr<ClientBusConnection> open(DeliveryQueue& deliveries,
                                                   Clock::time_point deadline,
                                                   std::function<void()> onLoss,
                                                   std::string& error);
  ClientBusConnection(SdBus connection, DeliveryQueue& deliveries, std::function<void()> onLoss,
                      uid_t user);
  ~ClientBusConnection() override;

  /// The unique name of the process that owns `service`, empty when no process does, nothing when
  /// the bus does not answer; asks the bus, and blocks for 25 s at most.
  std::optional<std::string> ownerOf(const std::string& service);
  /// Has the bus start `service` and waits until it owns its name, 25 s at most. False with the
  /// bus's words in `error`, or without words when the bus does not know how.
  bool startService(const std::string& service, std::string& error);
  /// Whether the process of that unique name runs as this user or as root; asks the bus the first
  /// time, and blocks for 25 s at most.
  bool isTrusted(const std::string& uniqueName);
  /// Pings the process of that unique name, and blocks for 1 s at most. False when the bus reports
  /// that it is gone.
  bool mayBeAlive(const std::string& uniqueName);
  /// Adds the owner of a service's name as a peer, which counts as dead once it loses the name; it
  /// is dead already when it has lost the name since.
  std::shared_ptr<Peer> bind(const std::string& service, const std::string& owner);

  /// From now on, cuts `line`, which leads to `process`, once another process owns the name of
  /// `service`. A name without an owner does not count. `owner` is the unique name of `process`, or
  /// empty when it is not known. Does not block.
  void follow(const std::string& service, pid_t process, const std::string& owner,
              std::weak_ptr<ClientConnection> line);

 private:
  struct NameOwner {
    std::string owner;
    uint64_t changes = 0;
  };
  struct Followed {
    std::string service;
    pid_t process;
    std::string owner;  // the unique name of `process`; empty when it is not known
    std::weak_ptr<ClientConnection> line;
  };
  struct OwnerAnswer;
  struct ProcessAnswer;
  struct TrustAnswer;
  struct StartAnswer;

  void onDaemonSignal(sd_bus_message* signal) override REQUIRES(loop_->mutex());
  void onConnectionLost() override REQUIRES(loop_->mutex());
  void setOwner(const std::string& service, const std::string& owner) REQUIRES(loop_->mutex());
  void checkFollowed(const std::string& service, const std::string& owner) REQUIRES(loop_->mutex());
  void compareProcess(const std::string& service, const std::string& owner, pid_t process)
      REQUIRES(loop_->mutex());
  bool track(const std::string& service) REQUIRES(loop_->mutex());
  std::shared_ptr<ZQBusMessage> askAndWait(const char* method, const std::string& name,
                                           const CallExtras& extras = {});

  const std::function<void()> onLoss_;
  std::map<std::string, NameOwner> owners_ GUARDED_BY(loop_->mutex());
  std::vector<Followed> followed_ GUARDED_BY(loop_->mutex());
};

}  // namespace zq
