#include "channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "bus_log.h"
#include "codec.h"
#include "event_bundle.h"
#include "platform/util/fork_generation.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

std::chrono::microseconds timeoutOf(int timeoutMs) {
  using namespace std::chrono;
  if (timeoutMs < 0) return kDefaultTimeout;
  return std::max(microseconds(1), microseconds(milliseconds(timeoutMs)));
}

ZQBusMessage timedOut(int timeoutMs) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(timeoutOf(timeoutMs));
  return ZQBusMessage::failed(ZQBusFailure::TimedOut,
                              "timed out after " + std::to_string(ms.count()) + " ms");
}

ZQBusMessage busGone() {
  return ZQBusMessage::failed(ZQBusFailure::BusGone, "the connection to the bus is lost");
}

ZQBusMessage peerGone(const std::string& service) {
  return ZQBusMessage::failed(ZQBusFailure::PeerGone, service + " has left the bus");
}

ZQBusMessage inherited() {
  return ZQBusMessage::failed(ZQBusFailure::Unusable,
                              "the connection belongs to the process that forked this one");
}

ZQBusMessage unreadable() {
  return ZQBusMessage::failed(ZQBusFailure::Unreadable, "the answer cannot be read");
}

bool saysLost(int result) {
  return result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE;
}

ZQBusMessage sendFailure(int result) {
  switch (-result) {
    case EMSGSIZE:
    case E2BIG:
      return ZQBusMessage::failed(ZQBusFailure::TooLarge, "too large for the bus");
    default:
      return ZQBusMessage::failed(ZQBusFailure::Unusable,
                                  std::string("cannot send: ") + std::strerror(-result));
  }
}

/// Whether an error reply is the bus's way of saying that nobody is there to answer.
bool saysPeerGone(sd_bus_message* message) {
  static constexpr std::array kNames = {SD_BUS_ERROR_SERVICE_UNKNOWN,
                                        SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_NO_REPLY,
                                        SD_BUS_ERROR_DISCONNECTED};
  return isFromBus(message) && std::any_of(kNames.begin(), kNames.end(), [&](const char* name) {
           return sd_bus_message_is_method_error(message, name) > 0;
         });
}

}  // namespace

/// A call that waits for its reply.
struct Channel::Call : Reader::Waiter {
  Channel* channel;
  std::shared_ptr<Peer> peer;
  std::list<std::shared_ptr<Call>>::iterator position;
  uint64_t cookie = 0;  // of a blocking call, by which its reply is found
  SdBusSlot slot;       // of an asynchronous one
  int timeoutMs;
  Clock::time_point deadline;
  bool asynchronous = false;
  ReplyFunction onReply;  // of an asynchronous call, may be empty
  ZQBusMessage reply;
};

Channel::Subscription::Subscription(Channel& channel, std::string member, std::string sender,
                                    SignalFunction listener)
    : channel_(channel),
      member_(std::move(member)),
      sender_(std::move(sender)),
      listener_(std::make_shared<SignalFunction>(std::move(listener))) {}

Channel::Subscription::~Subscription() {
  if (channel_.isInherited()) return;
  const Reader::Hold hold(*channel_.reader_);
  slot_.reset();
  std::erase(channel_.subscriptions_, this);
  channel_.reader_->sent();
}

Channel::Channel(SdBus connection, DeliveryQueue& deliveries, ZQBusFailure onLoss)
    : reader_(std::make_shared<Reader>(
          std::move(connection), static_cast<Reader::Listener&>(*this),
          [&deliveries] { deliveries.run(); }, Reader::WhileWorking::Read)),
      deliveries_(deliveries),
      onLoss_(onLoss),
      generation_(forkGeneration()) {}

Channel::~Channel() {
  stop();
}

int Channel::start() {
  sd_bus* const bus = reader_->bus();
  int heard = sd_bus_add_filter(bus, nullptr, &onBlockingReply, this);
  if (heard >= 0 && sd_bus_is_bus_client(bus) == 0) heard = hearBundles();
  return heard >= 0 ? reader_->start() : heard;
}

void Channel::stop() {
  if (isInherited()) return;
  {
    const Reader::Hold hold(*reader_);
    failCalls();
  }
  reader_->close();
}

/// Whether this is a child of the process that the connection belongs to. Its threads are not here,
/// and what they hold stays held: the lock, for one.
bool Channel::isInherited() const {
  return generation_ != forkGeneration();
}

bool Channel::lost() {
  const Reader::Hold hold(*reader_);
  return reader_->lost();
}

// --- Calls ---------------------------------------------------------------------------------------

std::shared_ptr<ZQBusMessage> Channel::call(const Target& target, const ZQBusMessage& request,
                                            int timeoutMs, const CallExtras& extras) {
  if (isInherited()) return std::make_shared<ZQBusMessage>(inherited());
  const auto call = std::make_shared<Call>();
  call->timeoutMs = timeoutMs;
  call->deadline = Clock::now() + timeoutOf(timeoutMs);
  Reader::Turn turn(*reader_, call);
  if (extras.first && !reader_->lost()) extras.first();
  send(call, target, request, extras.descriptor);
  turn.waitUntil(call->deadline);
  if (!call->done) finish(*call, reader_->lost() ? lossOf(*call) : timedOut(timeoutMs));
  return {call, &call->reply};
}

void Channel::callAsync(const Target& target, const ZQBusMessage& request, ReplyFunction onReply,
                        int timeoutMs) {
  if (isInherited()) {
    if (onReply) onReply(std::make_shared<ZQBusMessage>(inherited()));
    return;
  }
  const auto call = std::make_shared<Call>();
  call->timeoutMs = timeoutMs;
  call->deadline = Clock::now() + timeoutOf(timeoutMs);
  call->asynchronous = true;
  call->onReply = std::move(onReply);
  const Reader::Hold hold(*reader_);
  send(call, target, request);
  reader_->sent();
}

/// Sends a call, or finishes it when that cannot be.
void Channel::send(const std::shared_ptr<Call>& call, const Target& target,
                   const ZQBusMessage& request, int descriptor) {
  call->channel = this;
  call->peer = target.peer;
  // Blocking ones in front, where their replies look for them.
  call->position = calls_.insert(call->asynchronous ? calls_.end() : calls_.begin(), call);
  if (reader_->lost()) return finish(*call, lossOf(*call));
  if (call->peer != nullptr && call->peer->gone)
    return finish(*call, peerGone(call->peer->service));

  sd_bus_message* message = nullptr;
  const char* destination = target.destination.empty() ? nullptr : target.destination.c_str();
  int result =
      sd_bus_message_new_method_call(reader_->bus(), &message, destination, target.path.c_str(),
                                     target.interface.c_str(), request.name().c_str());
  const SdBusMessage owned(message);
  if (result >= 0) result = encodeArguments(request, message);
  if (result >= 0 && descriptor >= 0) {
    result = sd_bus_message_append_basic(message, SD_BUS_TYPE_UNIX_FD, &descriptor);
  }
  if (result >= 0) result = sendCall(*call, message);
  if (result < 0) finish(*call, saysLost(result) ? lossOf(*call) : sendFailure(result));
}

/// sd-bus's own account of who waits for what, and how long, is a fiftieth of the cost of a call.
/// Only an asynchronous call needs it; the deadline of a blocking one is its caller's.
int Channel::sendCall(Call& call, sd_bus_message* message) {
  if (!call.asynchronous) return sd_bus_send(reader_->bus(), message, &call.cookie);
  const auto timeout = static_cast<uint64_t>(timeoutOf(call.timeoutMs).count());
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_call_async(reader_->bus(), &slot, message, &onReply, &call, timeout);
  call.slot.reset(slot);
  return result;
}

/// Is asked about every message, and takes the replies to blocking calls.
int Channel::onBlockingReply(sd_bus_message* message, void* userdata, sd_bus_error* error) {
  const auto& calls = static_cast<Channel*>(userdata)->calls_;
  uint64_t cookie = 0;
  if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return 0;
  const auto call = std::find_if(calls.begin(), calls.end(),
                                 [&](const auto& waiting) { return waiting->cookie == cookie; });
  return call != calls.end() ? onReply(message, call->get(), error) : 0;
}

int Channel::onReply(sd_bus_message* message, void* userdata, sd_bus_error*) {
  Call& call = *static_cast<Call*>(userdata);
  if (sd_bus_message_is_method_error(message, nullptr) == 0) {
    ZQBusMessage reply(ZQBusMessageType::MethodReturn, {});
    call.channel->finish(call,
                         decodeArguments(message, reply) >= 0 ? std::move(reply) : unreadable());
  } else if (isFromBus(message) && Clock::now() >= call.deadline) {
    call.channel->finish(call, timedOut(call.timeoutMs));
  } else if (saysPeerGone(message)) {
    call.channel->finish(call, peerGone(call.peer != nullptr ? call.peer->service : "the owner"));
  } else {
    ZQBusMessage reply = ZQBusMessage::failed(ZQBusFailure::Service);
    call.channel->finish(call,
                         decodeArguments(message, reply) >= 0 ? std::move(reply) : unreadable());
  }
  return 1;
}

/// What the loss of the connection makes of a call.
ZQBusMessage Channel::lossOf(const Call& call) const {
  return onLoss_ == ZQBusFailure::PeerGone && call.peer != nullptr ? peerGone(call.peer->service)
                                                                   : busGone();
}

/// Ends a call with its one outcome. Under the lock.
void Channel::finish(Call& call, ZQBusMessage reply) {
  const std::shared_ptr<Call> owned = *call.position;
  calls_.erase(call.position);
  call.slot.reset();
  call.peer.reset();  // the caller may keep the reply, and with it the call
  call.reply = std::move(reply);
  if (!call.asynchronous) {
    reader_->complete(owned);
  } else if (call.onReply) {
    const std::shared_ptr<ZQBusMessage> outcome(owned, &call.reply);
    deliver([onReply = std::move(call.onReply), outcome] { onReply(outcome); });
  }
}

/// Has a callback run. Under the lock.
void Channel::deliver(DeliveryQueue::Job job) {
  if (deliveries_.post(std::move(job))) reader_->callThread();
}

// --- Signals -------------------------------------------------------------------------------------

std::unique_ptr<Channel::Subscription> Channel::subscribe(const std::string& interface,
                                                          const std::string& member,
                                                          const std::string& sender,
                                                          SignalFunction listener,
                                                          Clock::time_point deadline) {
  if (isInherited()) return nullptr;
  std::string match = "type='signal',interface='" + interface + "',member='" + member + '\'';
  if (!sender.empty()) match += ",sender='" + sender + '\'';
  // Outlives the turn: its end takes the lock itself.
  auto subscription = std::make_unique<Subscription>(*this, member, sender, std::move(listener));
  const std::shared_ptr<Reader::Waiter> installed = subscription->installed_;
  Reader::Turn turn(*reader_, installed);
  if (reader_->lost()) return nullptr;
  sd_bus_slot* slot = nullptr;
  const int added = sd_bus_add_match_async(reader_->bus(), &slot, match.c_str(), &onSignal,
                                           &onInstalled, subscription.get());
  subscription->slot_.reset(slot);
  if (added < 0) return nullptr;
  subscriptions_.push_back(subscription.get());
  if (sd_bus_is_bus_client(reader_->bus()) > 0) turn.waitUntil(deadline);
  return subscription;
}

int Channel::onInstalled(sd_bus_message* answer, void* userdata, sd_bus_error*) {
  const Subscription& subscription = *static_cast<Subscription*>(userdata);
  logRefusal(answer);
  subscription.channel_.reader_->complete(subscription.installed_);
  return 1;
}

int Channel::onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
  const Subscription& subscription = *static_cast<Subscription*>(userdata);
  const char* named = sd_bus_message_get_sender(message);
  const std::string sender = named != nullptr ? named : "";
  // A match does not keep away what another client sends to this connection directly.
  if (!subscription.sender_.empty() && subscription.sender_ != sender) return 0;
  auto event =
      std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, sd_bus_message_get_member(message));
  if (decodeArguments(message, *event) < 0) return 0;
  subscription.channel_.deliverEvent(subscription, std::move(event), sender);
  return 0;
}

/// Hears of events too that come several in one message: a service sends them so on a line alone,
/// and on the bus anybody could.
int Channel::hearBundles() {
  const std::string match = std::string("type='signal',interface='") + kDirectInterface +
                            "',member='" + kDirectEvents + '\'';
  return sd_bus_add_match(reader_->bus(), nullptr, match.c_str(), &onBundle, this);
}

int Channel::onBundle(sd_bus_message* message, void* userdata, sd_bus_error*) {
  Channel& channel = *static_cast<Channel*>(userdata);
  ZQBusMessage bundle;
  if (decodeArguments(message, bundle) < 0) return 0;
  for (const auto& event : EventBundle::eventsOf(bundle)) {
    for (const Subscription* subscription : channel.subscriptions_) {
      if (subscription->member_ == event->name()) channel.deliverEvent(*subscription, event, {});
    }
  }
  return 0;
}

void Channel::deliverEvent(const Subscription& subscription, std::shared_ptr<ZQBusMessage> event,
                           std::string sender) {
  const std::size_t size = memoryOf(*event);
  const bool idle = deliveries_.postEvent(
      [weak = std::weak_ptr(subscription.listener_), event = std::move(event),
       sender = std::move(sender)] {
        if (const auto listener = weak.lock()) (*listener)(event, sender);
      },
      size);
  if (idle) reader_->callThread();
}

// --- Deaths --------------------------------------------------------------------------------------

std::shared_ptr<Peer> Channel::addPeer(const std::string& service, const std::string& owner) {
  auto peer = std::make_shared<Peer>(service, owner);
  const Reader::Hold hold(*reader_);
  std::erase_if(peers_, [](const auto& weak) { return weak.expired(); });
  peers_.push_back(peer);
  peer->gone = reader_->lost();
  return peer;
}

void Channel::setDeathCallback(const std::shared_ptr<Peer>& peer, std::function<void()> onDeath) {
  const Reader::Hold hold(*reader_);
  peer->onDeath.swap(onDeath);
  if (peer->gone) postDeath(peer);
}

void Channel::declareDead(const std::shared_ptr<Peer>& peer) {
  if (peer->gone) return;
  peer->gone = true;
  for (auto next = calls_.begin(); next != calls_.end();) {
    Call& call = **next++;
    if (call.peer == peer) finish(call, peerGone(peer->service));
  }
  postDeath(peer);
}

void Channel::postDeath(const std::shared_ptr<Peer>& peer) {
  if (!peer->onDeath) return;
  deliver([weak = std::weak_ptr(peer), onDeath = std::exchange(peer->onDeath, nullptr)] {
    if (weak.lock() != nullptr) onDeath();
  });
}

void Channel::onConnectionLost() {
  failCalls();
  declareDeadIf([](const Peer&) { return true; });
}

void Channel::failCalls() {
  while (!calls_.empty()) finish(*calls_.front(), lossOf(*calls_.front()));
}

}  // namespace zq
