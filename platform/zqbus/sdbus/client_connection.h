// The client's end of a connection, to the bus or to a service directly: calls, asynchronous calls,
// subscriptions, and the deaths of those behind it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connection_loop.h"
#include "pending_calls.h"
#include "platform/zqbus/carrier.h"
#include "platform/zqbus/peer.h"
#include "sender_trust.h"

namespace zq {

/// What a call may have beside its request.
struct CallExtras {
  int descriptor = -1;          ///< a copy of it goes along behind the arguments
  std::function<void()> first;  ///< runs under the lock before the call is sent
};

class ClientConnection : private ConnectionLoop::Listener {
 public:
  using Clock = ConnectionLoop::Clock;
  using Duration = std::chrono::microseconds;
  using ReplyFunction = ZQBusProxyInterface::ReplyFunction;

  /// Where a call goes. `peer` is null for calls to the bus itself, `destination` empty on a direct
  /// line.
  struct Target {
    std::string destination;
    std::string path;
    std::string interface;
    std::shared_ptr<Peer> peer;
  };

  /// The signals that a subscription is for.
  struct Signal {
    std::string interface;
    std::string member;
    std::string sender;        ///< the unique name that is heard; empty for everybody
    bool trustedOnly = false;  ///< whether that is everybody of this user and root alone
  };

  class Subscription : public zq::Subscription {
   public:
    Subscription(ClientConnection& connection, Signal signal, EventFunction listener);
    ~Subscription() override;
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    friend class ClientConnection;
    bool hears(const char* interface, const char* member, const char* sender) const;
    std::string match() const;

    ClientConnection& connection_;
    const Signal signal_;
    const std::shared_ptr<const EventFunction> listener_;
    bool known_ = false;  // to the connection, and to the bus if there is one at the other end
  };

  /// Takes over a connection that is ready. `onLoss` is the failure of what its loss ends;
  /// `deliveries` outlives the process's threads. Nothing is read before start(). Callbacks that
  /// run when a connection ends run to their end, none begins afterwards.
  ClientConnection(SdBus connection, DeliveryQueue& deliveries, ZQBusFailure onLoss);
  ~ClientConnection() override;
  /// Starts the reading; 0 or a negative error number.
  [[nodiscard]] int start();
  /// In place of start(), for a connection that only makes blocking calls: without a thread.
  [[nodiscard]] int startWithoutThread();

  /// As ZQBusProxyInterface::callWithReplyBlocking.
  std::shared_ptr<ZQBusMessage> call(const Target& target, const ZQBusMessage& request,
                                     Duration timeout, const CallExtras& extras = {});
  /// As ZQBusProxyInterface::callWithReply.
  void callAsync(const Target& target, const ZQBusMessage& request, ReplyFunction onReply,
                 Duration timeout);

  /// Subscribes to a signal. Blocks until the bus, if there is one at the other end, has the
  /// subscription, or until `deadline`. `listener` is called from the delivery queue. Null when the
  /// connection is lost and when the bus refuses.
  std::unique_ptr<Subscription> subscribe(Signal signal, EventFunction listener,
                                          Clock::time_point deadline);

  /// Adds a process that dies with this connection, if nothing else tells so earlier.
  std::shared_ptr<Peer> addPeer(const std::string& service, const std::string& owner);
  void setDeathCallback(const std::shared_ptr<Peer>& peer, std::function<void()> onDeath);

  /// Whether the connection is of no further use.
  bool lost();
  /// Cuts the connection, as if the other end had; what waits on it hears so soon.
  void cut();

 protected:
  /// Ends the connection; for the destructor of a class that has handlers of its own.
  void stop();
  /// Declares those peers dead that a condition holds for. Under the lock.
  template <typename Condition>
  void declareDeadIf(Condition condition);
  void onConnectionLost() override;
  /// Hears a signal of the bus daemon. Under the lock.
  virtual void onDaemonSignal(sd_bus_message* /*signal*/) {}
  /// Sends a call of the bus daemon with one text; `call` may be null. Under the lock, within which
  /// `call` ends at once when it cannot be sent.
  void askDaemon(const char* method, const std::string& argument,
                 const std::shared_ptr<PendingCall>& call);
  /// Has a callback run. Under the lock.
  void deliver(DeliveryQueue::Job job);

  const std::shared_ptr<ConnectionLoop> loop_;
  // Under the loop's lock.
  PendingCalls pending_;
  SenderTrust trust_{pending_};

 private:
  struct Call;
  struct MatchAnswer;
  static int onMessage(sd_bus_message* message, void* connection, sd_bus_error* error);
  Clock::time_point nextDeadline() const override { return pending_.nextDeadline(); }
  void onDeadline(Clock::time_point now) override { pending_.expire(now); }

  void send(const std::shared_ptr<Call>& call, const Target& target, const ZQBusMessage& request,
            int descriptor = -1);
  int sendRequest(const std::shared_ptr<Call>& call, const Target& target,
                  const ZQBusMessage& request, int descriptor);
  void finish(Call& call, ZQBusMessage reply);
  ZQBusMessage withoutReply(const Call& call) const;
  ZQBusMessage outcomeOf(sd_bus_message* reply, const Call& call) const;
  ZQBusMessage lossOf(const Call& call) const;
  void declareDead(const std::shared_ptr<Peer>& peer);
  void postDeath(const Peer& peer);

  void onSignal(sd_bus_message* signal);
  void dispatch(sd_bus_message* signal, const char* sender, bool trusted);
  void dispatchBundle(sd_bus_message* signal);
  void deliverEvent(const Subscription& subscription, std::shared_ptr<ZQBusMessage> event);
  void noteDropped(const char* why, const char* sender);

  DeliveryQueue& deliveries_;
  const ZQBusFailure onLoss_;
  const bool isBus_;  // a bus is at the other end, not a service
  // Under the loop's lock.
  std::vector<std::weak_ptr<Peer>> peers_;
  std::vector<const Subscription*> subscriptions_;
  uint64_t dropped_ = 0;  // signals of which nobody heard
};

template <typename Condition>
void ClientConnection::declareDeadIf(Condition condition) {
  for (const auto& weak : peers_) {
    const auto peer = weak.lock();
    if (peer != nullptr && condition(*peer)) declareDead(peer);
  }
}

}  // namespace zq
