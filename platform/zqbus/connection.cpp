#include "connection.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "bus_log.h"
#include "codec.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr std::size_t kMaxTrustEntries = 1024;

const Connection::Target kBus{kBusName, kBusPath, kBusName, nullptr};

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

ZQBusMessage sendFailure(int result) {
  switch (-result) {
    case EMSGSIZE:
    case E2BIG:
      return ZQBusMessage::failed(ZQBusFailure::TooLarge, "too large for the bus");
    case ENOTCONN:
    case ECONNRESET:
    case EPIPE: return busGone();
    case ECHILD:
      return ZQBusMessage::failed(ZQBusFailure::Unusable,
                                  "the connection belongs to the process that forked this one");
    default:
      return ZQBusMessage::failed(ZQBusFailure::Unusable,
                                  std::string("cannot send: ") + std::strerror(-result));
  }
}

bool isFromBus(sd_bus_message* message) {
  const char* sender = sd_bus_message_get_sender(message);
  return sender == nullptr || std::strcmp(sender, kBusName) == 0;
}

/// Whether an error reply is the bus's way of saying that nobody is there to answer.
bool saysPeerGone(sd_bus_message* message) {
  static constexpr std::array kNames = {SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER,
                                        SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED};
  return isFromBus(message) && std::any_of(kNames.begin(), kNames.end(), [&](const char* name) {
           return sd_bus_message_is_method_error(message, name) > 0;
         });
}

std::size_t sizeOf(const ZQBusMessage& message) {
  std::size_t size = sizeof message;
  for (const ZQBusArgument& argument : message.arguments()) {
    size += sizeof argument;
    if (const auto* text = std::get_if<std::string>(&argument)) size += text->size();
    if (const auto* bytes = std::get_if<ZQBusBytes>(&argument)) {
      size += std::max<std::size_t>(bytes->size, ZQBusBytes::kReadable);
    }
  }
  return size;
}

}  // namespace

/// A call that waits for its reply.
struct Connection::Call : Reader::Waiter {
  Connection* connection;
  std::shared_ptr<Peer> peer;
  std::list<std::shared_ptr<Call>>::iterator position;
  SdBusSlot slot;
  int timeoutMs;
  Clock::time_point deadline;
  bool asynchronous = false;
  ReplyFunction onReply;                // of an asynchronous call, may be empty
  std::shared_ptr<ZQBusMessage> reply;  // of a blocking one
};

Connection::Subscription::Subscription(Connection& connection, std::string sender,
                                       SignalFunction listener)
    : connection_(connection),
      sender_(std::move(sender)),
      listener_(std::make_shared<SignalFunction>(std::move(listener))) {}

Connection::Subscription::~Subscription() {
  const Reader::Hold hold(connection_.reader_);
  slot_.reset();
}

std::unique_ptr<Connection> Connection::open(DeliveryQueue& deliveries, Clock::time_point deadline,
                                             std::string& error) {
  SdBus bus = openSdBus(deadline, error);
  if (bus == nullptr) return nullptr;
  return std::make_unique<Connection>(std::move(bus), deliveries);
}

Connection::Connection(SdBus bus, DeliveryQueue& deliveries)
    : deliveries_(deliveries), reader_(std::move(bus), *this) {
  reader_.start();
}

Connection::~Connection() {
  reader_.stop();
  const Reader::Hold hold(reader_);
  failAll();
}

bool Connection::lost() {
  const Reader::Hold hold(reader_);
  return reader_.lost();
}

// --- Calls ----------------------------------------------------------------------------------------

std::shared_ptr<ZQBusMessage> Connection::call(const Target& target, const ZQBusMessage& request,
                                               int timeoutMs) {
  const auto call = std::make_shared<Call>();
  call->timeoutMs = timeoutMs;
  call->deadline = Clock::now() + timeoutOf(timeoutMs);
  Reader::Turn turn(reader_, call);
  // The deadline of a blocking call is the caller's own; sd-bus's would need somebody to look.
  send(call, target, request, UINT64_MAX);
  turn.waitUntil(call->deadline);
  if (!call->done) finish(*call, reader_.lost() ? busGone() : timedOut(timeoutMs));
  return std::move(call->reply);
}

void Connection::callAsync(const Target& target, const ZQBusMessage& request, ReplyFunction onReply,
                           int timeoutMs) {
  const auto call = std::make_shared<Call>();
  call->timeoutMs = timeoutMs;
  call->deadline = Clock::now() + timeoutOf(timeoutMs);
  call->asynchronous = true;
  call->onReply = std::move(onReply);
  const Reader::Hold hold(reader_);
  send(call, target, request, static_cast<uint64_t>(timeoutOf(timeoutMs).count()));
  reader_.sent();
}

/// Sends a call, or finishes it when that cannot be.
void Connection::send(const std::shared_ptr<Call>& call, const Target& target,
                      const ZQBusMessage& request, uint64_t timeout) {
  call->connection = this;
  call->peer = target.peer;
  call->position = calls_.insert(calls_.end(), call);
  if (reader_.lost()) return finish(*call, busGone());
  if (call->peer != nullptr && call->peer->gone) return finish(*call, peerGone(call->peer->service));

  sd_bus_message* message = nullptr;
  int result = sd_bus_message_new_method_call(reader_.bus(), &message, target.destination.c_str(),
                                              target.path.c_str(), target.interface.c_str(),
                                              request.name().c_str());
  const SdBusMessage owned(message);
  if (result >= 0) result = encodeArguments(request, message);
  sd_bus_slot* slot = nullptr;
  if (result >= 0) {
    result = sd_bus_call_async(reader_.bus(), &slot, message, &onReply, call.get(), timeout);
  }
  call->slot.reset(slot);
  if (result < 0) finish(*call, sendFailure(result));
}

int Connection::onReply(sd_bus_message* message, void* userdata, sd_bus_error*) {
  Call& call = *static_cast<Call*>(userdata);
  if (sd_bus_message_is_method_error(message, nullptr) == 0) {
    ZQBusMessage reply(ZQBusMessageType::MethodReturn, {});
    decodeArguments(message, reply);
    call.connection->finish(call, std::move(reply));
  } else if (isFromBus(message) && Clock::now() >= call.deadline) {
    call.connection->finish(call, timedOut(call.timeoutMs));
  } else if (saysPeerGone(message)) {
    call.connection->finish(call, peerGone(call.peer != nullptr ? call.peer->service : "the owner"));
  } else {
    ZQBusMessage reply = ZQBusMessage::failed(ZQBusFailure::Service);
    decodeArguments(message, reply);
    call.connection->finish(call, std::move(reply));
  }
  return 1;
}

/// Ends a call with its one outcome. Under the lock.
void Connection::finish(Call& call, ZQBusMessage reply) {
  const std::shared_ptr<Call> owned = *call.position;
  calls_.erase(call.position);
  call.slot.reset();
  auto outcome = std::make_shared<ZQBusMessage>(std::move(reply));
  if (!call.asynchronous) {
    call.reply = std::move(outcome);
    reader_.complete(owned);
  } else if (call.onReply) {
    deliveries_.post([onReply = std::move(call.onReply), outcome = std::move(outcome)] {
      onReply(outcome);
    });
  }
}

// --- Signals --------------------------------------------------------------------------------------

std::unique_ptr<Connection::Subscription> Connection::subscribe(const std::string& interface,
                                                                const std::string& member,
                                                                const std::string& sender,
                                                                SignalFunction listener) {
  std::string match = "type='signal',interface='" + interface + "',member='" + member + '\'';
  if (!sender.empty()) match += ",sender='" + sender + '\'';
  // Made before the lock is taken: its end takes the lock itself.
  auto subscription =
      std::make_unique<Subscription>(*this, sender, std::move(listener));
  const Reader::Hold hold(reader_);
  if (reader_.lost()) return nullptr;
  subscription->slot_ = addMatch(match, &onSignal, subscription.get());
  if (subscription->slot_ == nullptr) return nullptr;
  return subscription;
}

SdBusSlot Connection::addMatch(const std::string& match, sd_bus_message_handler_t handler,
                               void* userdata) {
  // Without a handler of its own for the answer, sd-bus would close the connection on a refusal.
  const auto onAnswer = [](sd_bus_message* answer, void*, sd_bus_error*) {
    if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
      busLog(std::string("the bus refused a subscription: ") + error->message);
    }
    return 1;
  };
  sd_bus_slot* slot = nullptr;
  sd_bus_add_match_async(reader_.bus(), &slot, match.c_str(), handler, onAnswer, userdata);
  reader_.sent();
  return SdBusSlot(slot);
}

int Connection::onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
  const Subscription& subscription = *static_cast<Subscription*>(userdata);
  const char* sender = sd_bus_message_get_sender(message);
  // A match does not keep away what another client sends to this connection directly.
  if (sender == nullptr || (!subscription.sender_.empty() && subscription.sender_ != sender)) {
    return 0;
  }
  const auto event =
      std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, sd_bus_message_get_member(message));
  decodeArguments(message, *event);
  const std::size_t size = sizeOf(*event);
  subscription.connection_.deliveries_.postEvent(
      [weak = std::weak_ptr(subscription.listener_), event, from = std::string(sender)] {
        if (const auto listener = weak.lock()) (*listener)(event, from);
      },
      size);
  return 0;
}

// --- Owners and their deaths ----------------------------------------------------------------------

std::shared_ptr<ZQBusMessage> Connection::askBus(const char* method, const std::string& name) {
  ZQBusMessage request(ZQBusMessageType::MethodCall, method);
  request.appendString(name);
  return call(kBus, request, -1);
}

std::string Connection::ownerOf(const std::string& service) {
  uint64_t changes = 0;
  {
    // Changes are subscribed to first and the owner asked for then: none is missed.
    const Reader::Hold hold(reader_);
    track(service);
    changes = owners_[service].changes;
  }
  const auto reply = askBus("GetNameOwner", serviceName(service));
  std::string owner;
  reply->readString(owner, 0);
  if (reply->type() != 2) owner.clear();
  const bool answered = reply->type() == 2 || reply->failure() == ZQBusFailure::PeerGone;

  const Reader::Hold hold(reader_);
  // A change that was announced meanwhile is newer than the answer.
  if (answered && owners_[service].changes == changes) setOwner(service, owner);
  return owners_[service].owner;
}

bool Connection::isTrusted(const std::string& uniqueName) {
  {
    const Reader::Hold hold(reader_);
    const auto known = trust_.find(uniqueName);
    if (known != trust_.end()) return known->second;
  }
  const auto reply = askBus("GetConnectionUnixUser", uniqueName);
  const auto user = static_cast<uid_t>(reply->readInt32(0));
  const bool trusted =
      reply->type() == 2 && reply->argCount() == 1 && (user == ::geteuid() || user == 0);

  const Reader::Hold hold(reader_);
  if (trust_.size() >= kMaxTrustEntries) trust_.clear();
  trust_[uniqueName] = trusted;
  return trusted;
}

void Connection::track(const std::string& service) {
  if (reader_.lost() || owners_.contains(service)) return;
  const std::string match = std::string("type='signal',sender='") + kBusName + "',interface='" +
                            kBusName + "',member='NameOwnerChanged',arg0='" + serviceName(service) +
                            '\'';
  owners_[service].match = addMatch(match, &onNameOwnerChanged, this);
}

int Connection::onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
  if (!isFromBus(message)) return 0;
  const char* name = "";
  const char* before = "";
  const char* now = "";
  if (sd_bus_message_read(message, "sss", &name, &before, &now) < 0) return 0;
  auto& connection = *static_cast<Connection*>(userdata);
  for (auto& [service, owner] : connection.owners_) {
    if (serviceName(service) != name) continue;
    ++owner.changes;
    connection.setOwner(service, now);
  }
  return 0;
}

void Connection::setOwner(const std::string& service, const std::string& owner) {
  owners_[service].owner = owner;
  for (const auto& weak : peers_) {
    const auto peer = weak.lock();
    if (peer != nullptr && peer->service == service && peer->owner != owner) declareDead(peer);
  }
}

std::shared_ptr<Peer> Connection::bind(const std::string& service, const std::string& owner) {
  auto peer = std::make_shared<Peer>(service, owner);
  const Reader::Hold hold(reader_);
  std::erase_if(peers_, [](const auto& weak) { return weak.expired(); });
  peers_.push_back(peer);
  peer->gone = reader_.lost() || owners_[service].owner != owner;
  return peer;
}

void Connection::setDeathCallback(const std::shared_ptr<Peer>& peer,
                                  std::function<void()> onDeath) {
  const Reader::Hold hold(reader_);
  peer->onDeath.swap(onDeath);
  if (peer->gone) postDeath(peer);
}

void Connection::declareDead(const std::shared_ptr<Peer>& peer) {
  if (peer->gone) return;
  peer->gone = true;
  for (auto next = calls_.begin(); next != calls_.end();) {
    Call& call = **next++;
    if (call.peer == peer) finish(call, peerGone(peer->service));
  }
  postDeath(peer);
}

void Connection::postDeath(const std::shared_ptr<Peer>& peer) {
  if (!peer->onDeath) return;
  deliveries_.post([weak = std::weak_ptr(peer), onDeath = std::exchange(peer->onDeath, nullptr)] {
    if (weak.lock() != nullptr) onDeath();
  });
}

void Connection::onConnectionLost() {
  busLog("the connection to the bus is lost");
  failAll();
}

void Connection::failAll() {
  for (const auto& weak : peers_) {
    if (const auto peer = weak.lock()) declareDead(peer);
  }
  while (!calls_.empty()) finish(*calls_.front(), busGone());
  owners_.clear();
}

}  // namespace zq
