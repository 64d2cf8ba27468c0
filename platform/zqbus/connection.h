// The client's connection to the bus: calls, asynchronous calls, subscriptions, and who owns which
// name.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "delivery_queue.h"
#include "reader.h"
#include "zqbus/zqbus.h"

namespace zq {

/// The process behind a service's name, as one proxy interface sees it. Everything but `service`
/// and `owner` is under the connection's lock.
struct Peer {
  Peer(std::string serviceName, std::string uniqueName)
      : service(std::move(serviceName)), owner(std::move(uniqueName)) {}

  const std::string service;
  const std::string owner;  ///< its unique name on the bus
  bool gone = false;
  std::function<void()> onDeath;
};

class Connection : private Reader::Listener {
 public:
  using Clock = Reader::Clock;
  using ReplyFunction = ZQBusProxyInterface::ReplyFunction;

  /// Where a call goes. `peer` is null for calls to the bus itself.
  struct Target {
    std::string destination;
    std::string path;
    std::string interface;
    std::shared_ptr<Peer> peer;
  };

  /// Hears a signal: the message and its sender's unique name.
  using SignalFunction = std::function<void(std::shared_ptr<ZQBusMessage>, const std::string&)>;

  /// A subscription ends with this object, which ends before its connection. A delivery that is
  /// running then runs to its end, none begins afterwards.
  class Subscription {
   public:
    Subscription(Connection& connection, std::string sender, SignalFunction listener);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    friend class Connection;
    Connection& connection_;
    const std::string sender_;
    const std::shared_ptr<const SignalFunction> listener_;
    SdBusSlot slot_;
  };

  /// Connects to the bus of ZQBUS_ADDRESS or to the user's session bus, blocking until `deadline`
  /// at most. Null, `error` in words, when that fails. `deliveries` outlives the connection.
  static std::unique_ptr<Connection> open(DeliveryQueue& deliveries, Clock::time_point deadline,
                                          std::string& error);
  Connection(SdBus bus, DeliveryQueue& deliveries);
  ~Connection() override;

  /// As ZQBusProxyInterface::callWithReplyBlocking. Never null.
  std::shared_ptr<ZQBusMessage> call(const Target& target, const ZQBusMessage& request,
                                     int timeoutMs);
  /// As ZQBusProxyInterface::callWithReply.
  void callAsync(const Target& target, const ZQBusMessage& request, ReplyFunction onReply,
                 int timeoutMs);

  /// Subscribes to the signal `member` of `interface`, from `sender` alone or from anybody when it
  /// is empty. `listener` is called on the delivery thread. Null when the bus is gone.
  std::unique_ptr<Subscription> subscribe(const std::string& interface, const std::string& member,
                                          const std::string& sender, SignalFunction listener);

  /// The unique name of the process that owns `service`, empty when nobody does; asks the bus.
  std::string ownerOf(const std::string& service);
  /// Whether the process of that unique name runs as this user or as root; asks the bus.
  bool isTrusted(const std::string& uniqueName);

  /// Binds to a service's owner, to be told of its death; `gone` at once when it has changed.
  std::shared_ptr<Peer> bind(const std::string& service, const std::string& owner);
  void setDeathCallback(const std::shared_ptr<Peer>& peer, std::function<void()> onDeath);

  bool lost();

 private:
  struct Call;
  struct NameOwner {
    SdBusSlot match;
    std::string owner;
    uint64_t changes = 0;
  };

  static int onReply(sd_bus_message* message, void* call, sd_bus_error* error);
  static int onSignal(sd_bus_message* message, void* subscription, sd_bus_error* error);
  static int onNameOwnerChanged(sd_bus_message* message, void* connection, sd_bus_error* error);
  void onConnectionLost() override;

  void send(const std::shared_ptr<Call>& call, const Target& target, const ZQBusMessage& request,
            uint64_t timeout);
  void finish(Call& call, ZQBusMessage reply);
  void setOwner(const std::string& service, const std::string& owner);
  void declareDead(const std::shared_ptr<Peer>& peer);
  void postDeath(const std::shared_ptr<Peer>& peer);
  void failAll();
  void track(const std::string& service);
  SdBusSlot addMatch(const std::string& match, sd_bus_message_handler_t handler, void* userdata);
  std::shared_ptr<ZQBusMessage> askBus(const char* method, const std::string& name);

  DeliveryQueue& deliveries_;
  Reader reader_;
  // All below is under the reader's lock.
  std::list<std::shared_ptr<Call>> calls_;
  std::map<std::string, NameOwner> owners_;
  std::vector<std::weak_ptr<Peer>> peers_;
  std::map<std::string, bool> trust_;  // by unique name, which a bus never gives twice
};

}  // namespace zq
