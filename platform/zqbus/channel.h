// The client's end of a connection, to the bus or to a service directly: calls, asynchronous calls,
// subscriptions, and the deaths of those behind it.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "delivery_queue.h"
#include "reader.h"
#include "zqbus/zqbus.h"

namespace zq {

/// The process behind a service's name, as one proxy interface sees it. It changes under the lock
/// of the channel that it was added to.
struct Peer {
  Peer(std::string serviceName, std::string uniqueName)
      : service(std::move(serviceName)), owner(std::move(uniqueName)) {}

  const std::string service;
  const std::string owner;  ///< its unique name on the bus
  std::atomic<bool> gone = false;
  std::function<void()> onDeath;
};

/// What a call may have beside its request.
struct CallExtras {
  int descriptor = -1;          ///< a copy of it goes along behind the arguments
  std::function<void()> first;  ///< runs under the lock before the call is sent
};

class Channel : private Reader::Listener {
 public:
  using Clock = Reader::Clock;
  using ReplyFunction = ZQBusProxyInterface::ReplyFunction;

  /// Where a call goes. `peer` is null for calls to the bus itself, `destination` empty on a direct
  /// line.
  struct Target {
    std::string destination;
    std::string path;
    std::string interface;
    std::shared_ptr<Peer> peer;
  };

  /// Hears a signal: the message and its sender's unique name (empty on a direct line).
  using SignalFunction = std::function<void(std::shared_ptr<ZQBusMessage>, const std::string&)>;

  /// A subscription ends with this object, which ends before its channel. A delivery that is
  /// running then runs to its end, none begins afterwards.
  class Subscription {
   public:
    Subscription(Channel& channel, std::string member, std::string sender, SignalFunction listener);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    friend class Channel;
    Channel& channel_;
    const std::string member_;
    const std::string sender_;
    const std::shared_ptr<const SignalFunction> listener_;
    const std::shared_ptr<Reader::Waiter> installed_ = std::make_shared<Reader::Waiter>();
    SdBusSlot slot_;
  };

  /// Takes over a connection that is ready. `onLoss` is the failure of what its loss ends;
  /// `deliveries` outlives the process's threads. Nothing is read before start(). Callbacks that
  /// run when a channel ends run to their end, none begins afterwards.
  Channel(SdBus connection, DeliveryQueue& deliveries, ZQBusFailure onLoss);
  ~Channel() override;
  /// Starts the reading; 0 or a negative error number.
  [[nodiscard]] int start();

  /// As ZQBusProxyInterface::callWithReplyBlocking.
  std::shared_ptr<ZQBusMessage> call(const Target& target, const ZQBusMessage& request,
                                     int timeoutMs, const CallExtras& extras = {});
  /// As ZQBusProxyInterface::callWithReply.
  void callAsync(const Target& target, const ZQBusMessage& request, ReplyFunction onReply,
                 int timeoutMs);

  /// Subscribes to the signal `member` of `interface`, from `sender` alone or from anybody when it
  /// is empty. Blocks until the bus, if there is one at the other end, has the subscription, or
  /// until `deadline`. `listener` is called from the delivery queue. Null when the bus is gone.
  std::unique_ptr<Subscription> subscribe(const std::string& interface, const std::string& member,
                                          const std::string& sender, SignalFunction listener,
                                          Clock::time_point deadline);

  /// Adds a process that dies with this channel, if nothing else tells so earlier.
  std::shared_ptr<Peer> addPeer(const std::string& service, const std::string& owner);
  void setDeathCallback(const std::shared_ptr<Peer>& peer, std::function<void()> onDeath);

  bool lost();

 protected:
  /// Ends the connection; for the destructor of a class that has handlers of its own.
  void stop();
  /// Declares those peers dead that a condition holds for. Under the lock.
  template <typename Condition>
  void declareDeadIf(Condition condition);
  void onConnectionLost() override;

  const std::shared_ptr<Reader> reader_;

 private:
  struct Call;
  static int onBlockingReply(sd_bus_message* message, void* channel, sd_bus_error* error);
  static int onReply(sd_bus_message* message, void* call, sd_bus_error* error);
  static int onSignal(sd_bus_message* message, void* subscription, sd_bus_error* error);
  static int onBundle(sd_bus_message* message, void* channel, sd_bus_error* error);
  static int onInstalled(sd_bus_message* answer, void* subscription, sd_bus_error* error);

  bool isInherited() const;
  int hearBundles();
  void send(const std::shared_ptr<Call>& call, const Target& target, const ZQBusMessage& request,
            int descriptor = -1);
  int sendCall(Call& call, sd_bus_message* message);
  void finish(Call& call, ZQBusMessage reply);
  ZQBusMessage lossOf(const Call& call) const;
  void declareDead(const std::shared_ptr<Peer>& peer);
  void postDeath(const std::shared_ptr<Peer>& peer);
  void failCalls();
  void deliver(DeliveryQueue::Job job);
  void deliverEvent(const Subscription& subscription, std::shared_ptr<ZQBusMessage> event,
                    std::string sender);

  DeliveryQueue& deliveries_;
  const ZQBusFailure onLoss_;
  const int generation_;
  // Under the reader's lock.
  std::list<std::shared_ptr<Call>> calls_;
  std::vector<std::weak_ptr<Peer>> peers_;
  std::vector<const Subscription*> subscriptions_;
};

template <typename Condition>
void Channel::declareDeadIf(Condition condition) {
  for (const auto& weak : peers_) {
    const auto peer = weak.lock();
    if (peer != nullptr && condition(*peer)) declareDead(peer);
  }
}

}  // namespace zq
