// A client's connection, to the bus or to a service directly: calls, asynchronous calls,
// subscriptions, and the deaths of services.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection_loop.h"
#include "pending_calls.h"
#include "platform/zqbus/carrier.h"
#include "platform/zqbus/peer.h"
#include "sender_trust.h"

namespace zq {

/// Options of a call.
struct CallExtras {
  int descriptor = -1;  ///< a copy of it is the last argument; negative for none
  /// Runs under the loop's mutex immediately before the call is sent, so that no message is read in
  /// between; not when the connection is lost. May be empty.
  std::function<void()> first;
};

class ClientConnection : private ConnectionLoop::Listener {
 public:
  using Clock = ConnectionLoop::Clock;
  using Duration = std::chrono::microseconds;
  using ReplyFunction = ZQBusProxyInterface::ReplyFunction;

  /// The receiver of a call. `peer` is null for calls to the bus daemon, `destination` is empty on
  /// a direct line.
  struct Target {
    std::string destination;
    std::string path;
    std::string interface;
    std::shared_ptr<Peer> peer;
  };

  /// The signals that a subscription receives.
  struct Signal {
    std::string interface;
    std::string member;
    std::string sender;        ///< a unique name; empty for every sender
    bool trustedOnly = false;  ///< of every sender, those of this user and of root alone
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
    bool active_ = false;  // the connection has it, and so does a bus at the other end
  };

  /// Takes over a connection that is ready. Calls that its loss ends fail with `onLoss`.
  /// `deliveries` outlives the process's threads. `user` is this process's user as the bus knows
  /// it. Nothing is read before start(). The destructor does not wait for a running callback; no
  /// callback begins afterwards.
  ClientConnection(SdBus connection, DeliveryQueue& deliveries, ZQBusFailure onLoss,
                   uid_t user = ::geteuid());
  ~ClientConnection() override;
  /// Starts the reading; 0 or a negative error number.
  [[nodiscard]] int start();
  /// In place of start(), for a connection that makes blocking calls alone: starts no thread.
  [[nodiscard]] int startWithoutThread();

  /// As ZQBusProxyInterface::callWithReplyBlocking.
  std::shared_ptr<ZQBusMessage> call(const Target& target, const ZQBusMessage& request,
                                     Duration timeout, const CallExtras& extras = {});
  /// As ZQBusProxyInterface::callWithReply.
  void callAsync(const Target& target, const ZQBusMessage& request, ReplyFunction onReply,
                 Duration timeout);

  /// Subscribes to a signal. On a connection to the bus it blocks until the bus has added the
  /// match, or until `deadline`. The delivery queue calls `listener`. Null when the connection is
  /// lost and when the bus refuses.
  std::unique_ptr<Subscription> subscribe(Signal signal, EventFunction listener,
                                          Clock::time_point deadline);

  /// Adds a process that counts as dead when this connection is lost, or earlier.
  std::shared_ptr<Peer> addPeer(const std::string& service, const std::string& owner);
  void setDeathCallback(const std::shared_ptr<Peer>& peer, std::function<void()> onDeath);

  /// Whether the connection is of no further use.
  bool lost();
  /// Shuts the connection down, as if the peer had closed it; its calls fail soon.
  void cut();

 protected:
  /// Closes the connection; for the destructor of a derived class that has handlers of its own.
  void stop() EXCLUDES(loop_->mutex());
  /// Declares the peers dead for which `condition` holds.
  template <typename Condition>
  void declareDeadIf(Condition condition) REQUIRES(loop_->mutex());
  void onConnectionLost() override REQUIRES(loop_->mutex());
  /// Receives a signal of the bus daemon.
  virtual void onDaemonSignal(sd_bus_message* /*signal*/) REQUIRES(loop_->mutex()) {}
  /// Calls a method of the bus daemon with one text, and with `flags` where the method takes them;
  /// `call` may be null. A call that cannot be sent ends before the return.
  void askDaemon(const char* method, const std::string& argument,
                 const std::shared_ptr<PendingCall>& call,
                 std::optional<uint32_t> flags = std::nullopt) REQUIRES(loop_->mutex());
  /// Has a callback run.
  void deliver(DeliveryQueue::Job job) REQUIRES(loop_->mutex());

  const std::shared_ptr<ConnectionLoop> loop_;
  PendingCalls pending_ GUARDED_BY(loop_->mutex());
  SenderTrust trust_ GUARDED_BY(loop_->mutex());

 private:
  struct Call;
  struct MatchAnswer;
  static int onMessage(sd_bus_message* message, void* connection, sd_bus_error* error);
  Clock::time_point nextDeadline() const override REQUIRES(loop_->mutex()) {
    return pending_.nextDeadline();
  }
  void onDeadline(Clock::time_point now) override REQUIRES(loop_->mutex()) { pending_.expire(now); }

  void send(const std::shared_ptr<Call>& call, const Target& target, const ZQBusMessage& request,
            int descriptor = -1) REQUIRES(loop_->mutex());
  int sendRequest(const std::shared_ptr<Call>& call, const Target& target,
                  const ZQBusMessage& request, int descriptor) REQUIRES(loop_->mutex());
  void finish(Call& call, ZQBusMessage reply) REQUIRES(loop_->mutex());
  ZQBusMessage outcomeWithoutReply(const Call& call) const REQUIRES(loop_->mutex());
  ZQBusMessage outcomeOf(sd_bus_message* reply, const Call& call) const;
  ZQBusMessage lossOf(const Call& call) const;
  void declareDead(const std::shared_ptr<Peer>& peer) REQUIRES(loop_->mutex());
  void postDeath(const Peer& peer) REQUIRES(loop_->mutex());

  void onSignal(sd_bus_message* signal) REQUIRES(loop_->mutex());
  void dispatch(sd_bus_message* signal, const char* sender, bool trusted) REQUIRES(loop_->mutex());
  void dispatchBundle(sd_bus_message* signal) REQUIRES(loop_->mutex());
  void deliverEvent(const Subscription& subscription, std::shared_ptr<ZQBusMessage> event)
      REQUIRES(loop_->mutex());
  void logDropped(const char* why, const char* sender) REQUIRES(loop_->mutex());

  DeliveryQueue& deliveries_;
  const ZQBusFailure onLoss_;
  const bool isBus_;  // else a service is at the other end
  std::vector<std::weak_ptr<Peer>> peers_ GUARDED_BY(loop_->mutex());
  std::vector<const Subscription*> subscriptions_ GUARDED_BY(loop_->mutex());
  uint64_t dropped_ GUARDED_BY(loop_->mutex()) = 0;  // signals
};

template <typename Condition>
void ClientConnection::declareDeadIf(Condition condition) {
  for (const auto& weak : peers_) {
    const auto peer = weak.lock();
    if (peer != nullptr && condition(*peer)) declareDead(peer);
  }
}

}  // namespace zq
