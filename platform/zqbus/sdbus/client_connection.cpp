#include "client_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "codec.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/event_bundle.h"
#include "platform/zqbus/failures.h"
#include "platform/zqbus/memory_of.h"
#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr char kUnreadable[] = "it cannot be read";

const char* whyUnreadable(int result) {
  return result == -EMSGSIZE ? "it holds too many values"
         : result == -ENOMEM ? "there is no memory for it"
                             : "it is malformed";
}

bool saysLost(int result) {
  return result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE;
}

ZQBusMessage sendFailure(int result) {
  switch (-result) {
    case EMSGSIZE:
    case E2BIG:
      return tooLarge();
    default:
      return cannotSend(std::strerror(-result));
  }
}

/// Whether an error reply of the bus means that the receiver of the call is gone.
bool saysPeerGone(sd_bus_message* message) {
  static constexpr std::array kNames = {SD_BUS_ERROR_SERVICE_UNKNOWN,
                                        SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_NO_REPLY,
                                        SD_BUS_ERROR_DISCONNECTED};
  return isFromBus(message) && std::any_of(kNames.begin(), kNames.end(), [&](const char* name) {
           return sd_bus_message_is_method_error(message, name) > 0;
         });
}

/// A header field of a message; empty when the message lacks it.
std::string_view field(const char* value) {
  return value != nullptr ? value : "";
}

}  // namespace

/// A call that waits for its reply.
struct ClientConnection::Call : PendingCall, ConnectionLoop::Waiter {
  ClientConnection* connection;
  std::shared_ptr<Peer> peer;
  Duration timeout;
  Clock::time_point deadline;
  bool asynchronous = false;
  ReplyFunction onReply;  // of an asynchronous call, may be empty
  std::weak_ptr<Call> self;
  ZQBusMessage reply;

  void onOutcome(sd_bus_message* message) override REQUIRES(connection->loop_->mutex()) {
    connection->finish(*this, message != nullptr ? connection->outcomeOf(message, *this)
                                                 : connection->outcomeWithoutReply(*this));
  }
};

/// The bus's answer to a subscription.
struct ClientConnection::MatchAnswer : PendingCall, ConnectionLoop::Waiter {
  ClientConnection* connection;
  std::weak_ptr<MatchAnswer> self;
  bool refused = false;

  void onOutcome(sd_bus_message* answer) override REQUIRES(connection->loop_->mutex()) {
    refused = answer == nullptr || sd_bus_message_is_method_error(answer, nullptr) > 0;
    if (answer != nullptr) logRefusal(answer);
    if (const auto waiter = self.lock()) connection->loop_->complete(waiter);
  }
};

ClientConnection::ClientConnection(SdBus connection, DeliveryQueue& deliveries, ZQBusFailure onLoss,
                                   uid_t user)
    : loop_(std::make_shared<ConnectionLoop>(
          std::move(connection), static_cast<ConnectionLoop::Listener&>(*this),
          [&deliveries] { deliveries.run(); }, ConnectionLoop::WhileWorking::Read)),
      trust_(pending_, user),
      deliveries_(deliveries),
      onLoss_(onLoss),
      isBus_(sd_bus_is_bus_client(loop_->bus()) > 0) {}

ClientConnection::~ClientConnection() {
  stop();
}

int ClientConnection::start() {
  const int heard = startWithoutThread();
  const ConnectionLoop::Hold hold(*loop_);
  return heard >= 0 ? loop_->start() : heard;
}

int ClientConnection::startWithoutThread() {
  const ConnectionLoop::Hold hold(*loop_);
  return sd_bus_add_filter(loop_->bus(), nullptr, &onMessage, this);
}

void ClientConnection::stop() {
  {
    const ConnectionLoop::Hold hold(*loop_);
    pending_.endIf([](const PendingCall&) { return true; });
  }
  loop_->close();
}

bool ClientConnection::lost() {
  const ConnectionLoop::Hold hold(*loop_);
  // A send may have noticed the loss before the loop does.
  return loop_->lost() || sd_bus_is_open(loop_->bus()) <= 0;
}

void ClientConnection::cut() {
  const ConnectionLoop::Hold hold(*loop_);
  if (!loop_->lost()) ::shutdown(sd_bus_get_fd(loop_->bus()), SHUT_RDWR);
}

/// The filter that receives every message. No exception may reach sd-bus: when memory for a message
/// is short, the message is dropped and the connection goes on.
int ClientConnection::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) try {
  ClientConnection& connection = *static_cast<ClientConnection*>(userdata);
  connection.loop_->mutex().assertHeld();  // by the loop, which has sd-bus call this
  if (connection.pending_.take(message)) return 1;
  if (sd_bus_message_is_signal(message, nullptr, nullptr) <= 0) return 0;
  connection.onSignal(message);
  return 1;
} catch (const std::exception&) {
  return 1;
}

// --- Calls ---------------------------------------------------------------------------------------

std::shared_ptr<ZQBusMessage> ClientConnection::call(const Target& target,
                                                     const ZQBusMessage& request, Duration timeout,
                                                     const CallExtras& extras) {
  const auto call = std::make_shared<Call>();
  call->timeout = timeout;
  call->deadline = Clock::now() + timeout;
  ConnectionLoop::Turn turn(*loop_, call);
  if (extras.first && !loop_->lost()) extras.first();
  send(call, target, request, extras.descriptor);
  turn.waitUntil(call->deadline);
  if (!call->done) pending_.end(*call);
  return {call, &call->reply};
}

void ClientConnection::callAsync(const Target& target, const ZQBusMessage& request,
                                 ReplyFunction onReply, Duration timeout) {
  const auto call = std::make_shared<Call>();
  call->timeout = timeout;
  call->deadline = Clock::now() + timeout;
  call->asynchronous = true;
  call->onReply = std::move(onReply);
  const ConnectionLoop::Hold hold(*loop_);
  send(call, target, request);
  loop_->afterSend();
}

/// Sends a call, or finishes it when it cannot be sent.
void ClientConnection::send(const std::shared_ptr<Call>& call, const Target& target,
                            const ZQBusMessage& request, int descriptor) {
  call->connection = this;
  call->self = call;
  call->peer = target.peer;
  if (loop_->lost()) return finish(*call, lossOf(*call));
  if (call->peer != nullptr && call->peer->gone())
    return finish(*call, peerGone(call->peer->service));
  const int result = sendRequest(call, target, request, descriptor);
  if (result < 0) finish(*call, saysLost(result) ? lossOf(*call) : sendFailure(result));
}

int ClientConnection::sendRequest(const std::shared_ptr<Call>& call, const Target& target,
                                  const ZQBusMessage& request, int descriptor) {
  sd_bus_message* message = nullptr;
  const char* destination = target.destination.empty() ? nullptr : target.destination.c_str();
  int result =
      sd_bus_message_new_method_call(loop_->bus(), &message, destination, target.path.c_str(),
                                     target.interface.c_str(), request.name().c_str());
  const SdBusMessage owned(message);
  if (result >= 0) result = encodeArguments(request, message);
  if (result >= 0 && descriptor >= 0) {
    result = sd_bus_message_append_basic(message, SD_BUS_TYPE_UNIX_FD, &descriptor);
  }
  if (result < 0) return result;
  // The caller of a blocking call watches the deadline itself.
  const auto deadline = call->asynchronous ? call->deadline : Clock::time_point::max();
  return pending_.send(loop_->bus(), message, call, deadline);
}

ZQBusMessage ClientConnection::outcomeOf(sd_bus_message* reply, const Call& call) const {
  const bool failed = sd_bus_message_is_method_error(reply, nullptr) > 0;
  if (failed && isBus_ && saysPeerGone(reply)) {
    return peerGone(call.peer != nullptr ? call.peer->service : "the owner");
  }
  ZQBusMessage outcome = failed ? ZQBusMessage::failed(ZQBusFailure::Service)
                                : ZQBusMessage(ZQBusMessageType::MethodReturn, {});
  const int decoded = decodeArguments(reply, outcome);
  return decoded >= 0 ? std::move(outcome) : unreadable(whyUnreadable(decoded));
}

/// The outcome of a call that ends without a reply.
ZQBusMessage ClientConnection::outcomeWithoutReply(const Call& call) const {
  if (loop_->lost()) return lossOf(call);
  if (call.peer != nullptr && call.peer->gone()) return peerGone(call.peer->service);
  return Clock::now() >= call.deadline ? timedOut(call.timeout) : lossOf(call);
}

/// The outcome of a call that the loss of the connection ends.
ZQBusMessage ClientConnection::lossOf(const Call& call) const {
  return onLoss_ == ZQBusFailure::PeerGone && call.peer != nullptr ? peerGone(call.peer->service)
                                                                   : busGone();
}

/// Ends a call with its one outcome.
void ClientConnection::finish(Call& call, ZQBusMessage reply) {
  const std::shared_ptr<Call> owned = call.self.lock();
  call.peer.reset();  // the caller may keep the reply, and with it the call
  call.reply = std::move(reply);
  if (!call.asynchronous) {
    loop_->complete(owned);
  } else if (call.onReply) {
    const std::shared_ptr<ZQBusMessage> outcome(owned, &call.reply);
    deliver([onReply = std::move(call.onReply), outcome] { onReply(outcome); });
  }
}

void ClientConnection::askDaemon(const char* method, const std::string& argument,
                                 const std::shared_ptr<PendingCall>& call,
                                 std::optional<uint32_t> flags) {
  const SdBusMessage message = newBusCall(loop_->bus(), method, argument.c_str(), flags);
  int result = message != nullptr ? 0 : -ENOMEM;
  if (result >= 0 && call != nullptr) {
    result = pending_.send(loop_->bus(), message.get(), call, Clock::now() + kDefaultTimeout);
  } else if (result >= 0) {
    sd_bus_message_set_expect_reply(message.get(), 0);
    result = sd_bus_send(loop_->bus(), message.get(), nullptr);
  }
  if (result < 0 && call != nullptr) call->onOutcome(nullptr);
}

void ClientConnection::deliver(DeliveryQueue::Job job) {
  if (deliveries_.post(std::move(job))) loop_->requestWork();
}

// --- Signals -------------------------------------------------------------------------------------

ClientConnection::Subscription::Subscription(ClientConnection& connection, Signal signal,
                                             EventFunction listener)
    : connection_(connection),
      signal_(std::move(signal)),
      listener_(std::make_shared<EventFunction>(std::move(listener))) {}

ClientConnection::Subscription::~Subscription() {
  if (!active_) return;
  const ConnectionLoop::Hold hold(*connection_.loop_);
  std::erase(connection_.subscriptions_, this);
  if (!connection_.isBus_ || connection_.loop_->lost()) return;
  connection_.askDaemon("RemoveMatch", match(), nullptr);
  connection_.loop_->afterSend();
}

/// `sender` is null on a line, which has one sender.
bool ClientConnection::Subscription::hears(const char* interface, const char* member,
                                           const char* sender) const {
  return signal_.member == member && signal_.interface == interface &&
         (sender == nullptr || signal_.sender.empty() || signal_.sender == sender);
}

std::string ClientConnection::Subscription::match() const {
  std::string match =
      "type='signal',interface='" + signal_.interface + "',member='" + signal_.member + '\'';
  if (!signal_.sender.empty()) match += ",sender='" + signal_.sender + '\'';
  return match;
}

std::unique_ptr<ClientConnection::Subscription> ClientConnection::subscribe(
    Signal signal, EventFunction listener, Clock::time_point deadline) {
  // Outlives the turn: its destructor locks the mutex itself.
  auto subscription = std::make_unique<Subscription>(*this, std::move(signal), std::move(listener));
  const auto answer = std::make_shared<MatchAnswer>();
  answer->connection = this;
  answer->self = answer;
  ConnectionLoop::Turn turn(*loop_, answer);
  if (loop_->lost()) return nullptr;
  subscription->active_ = true;
  subscriptions_.push_back(subscription.get());
  if (!isBus_) return subscription;
  askDaemon("AddMatch", subscription->match(), answer);
  turn.waitUntil(deadline);
  if (!answer->refused) return subscription;
  std::erase(subscriptions_, subscription.get());
  subscription->active_ = false;
  return nullptr;
}

void ClientConnection::onSignal(sd_bus_message* signal) {
  if (!isBus_) return dispatch(signal, nullptr, true);
  const char* sender = sd_bus_message_get_sender(signal);
  if (sender == nullptr) return;
  if (isFromBus(signal)) return onDaemonSignal(signal);
  const char* interface = sd_bus_message_get_interface(signal);
  const char* member = sd_bus_message_get_member(signal);
  bool heard = false;
  bool trustMatters = false;
  // A match does not keep out signals that another client sends to this connection directly.
  for (const Subscription* subscription : subscriptions_) {
    if (!subscription->hears(interface, member, sender)) continue;
    heard = true;
    trustMatters = trustMatters || subscription->signal_.trustedOnly;
  }
  if (!heard) return;
  if (!trustMatters) return dispatch(signal, sender, false);
  const std::shared_ptr<sd_bus_message> kept(sd_bus_message_ref(signal), &sd_bus_message_unref);
  const bool asked =
      trust_.check(loop_->bus(), sender, [this, kept](bool trusted) REQUIRES(loop_->mutex()) {
        dispatch(kept.get(), sd_bus_message_get_sender(kept.get()), trusted);
      });
  if (!asked) logDropped("too many senders are being checked", sender);
}

/// Hands a signal to its subscriptions, once its sender is checked.
void ClientConnection::dispatch(sd_bus_message* signal, const char* sender, bool trusted) {
  const char* interface = sd_bus_message_get_interface(signal);
  const char* member = sd_bus_message_get_member(signal);
  // On the bus, where any client could send a bundle, no subscription hears one.
  if (field(interface) == kDirectInterface && field(member) == kDirectEvents) {
    return dispatchBundle(signal);
  }
  std::shared_ptr<ZQBusMessage> event;
  for (const Subscription* subscription : subscriptions_) {
    if (!subscription->hears(interface, member, sender)) continue;
    if (subscription->signal_.trustedOnly && !trusted) continue;
    if (event == nullptr) {
      event = std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, member);
      if (decodeArguments(signal, *event) < 0) return logDropped(kUnreadable, sender);
    }
    deliverEvent(*subscription, event);
  }
}

void ClientConnection::dispatchBundle(sd_bus_message* signal) {
  ZQBusMessage bundle;
  if (decodeArguments(signal, bundle) < 0) return logDropped(kUnreadable, nullptr);
  for (const auto& event : EventBundle::eventsOf(bundle)) {
    for (const Subscription* subscription : subscriptions_) {
      if (subscription->signal_.member == event->name()) deliverEvent(*subscription, event);
    }
  }
}

void ClientConnection::deliverEvent(const Subscription& subscription,
                                    std::shared_ptr<ZQBusMessage> event) {
  const std::size_t size = memoryOf(*event);
  const bool idle = deliveries_.postEvent(
      [weak = std::weak_ptr(subscription.listener_), event = std::move(event)] {
        if (const auto listener = weak.lock()) (*listener)(event);
      },
      size);
  if (idle) loop_->requestWork();
}

/// Logs the first dropped signal, the second, the fourth and so on: a flood must not fill the log.
void ClientConnection::logDropped(const char* why, const char* sender) {
  if (!std::has_single_bit(++dropped_)) return;
  busLog(std::string("dropped a signal of ") + (sender != nullptr ? sender : "the service") + ": " +
         why + " (" + std::to_string(dropped_) + " so far)");
}

// --- Deaths --------------------------------------------------------------------------------------

std::shared_ptr<Peer> ClientConnection::addPeer(const std::string& service,
                                                const std::string& owner) {
  auto peer = std::make_shared<Peer>(service, owner);
  const ConnectionLoop::Hold hold(*loop_);
  std::erase_if(peers_, [](const auto& weak) { return weak.expired(); });
  peers_.push_back(peer);
  if (loop_->lost()) peer->leave();
  return peer;
}

void ClientConnection::setDeathCallback(const std::shared_ptr<Peer>& peer,
                                        std::function<void()> onDeath) {
  Peer::DeathCallback callback = Peer::shared(std::move(onDeath));
  const ConnectionLoop::Hold hold(*loop_);
  peer->setDeathCallback(callback);
  if (peer->gone()) postDeath(*peer);
}

void ClientConnection::declareDead(const std::shared_ptr<Peer>& peer) {
  if (!peer->leave()) return;
  pending_.endIf([&](const PendingCall& pending) {
    const auto* call = dynamic_cast<const Call*>(&pending);
    return call != nullptr && call->peer == peer;
  });
  postDeath(*peer);
}

void ClientConnection::postDeath(const Peer& peer) {
  if (auto notice = peer.deathNotice(deliveries_)) deliver(std::move(notice));
}

void ClientConnection::onConnectionLost() {
  pending_.endIf([](const PendingCall&) { return true; });
  declareDeadIf([](const Peer&) { return true; });
}

}  // namespace zq
