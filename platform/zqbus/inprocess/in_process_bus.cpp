// A bus inside one process: no broker, no socket. Clients and services meet in one object, under
// one mutex; callbacks and handlers run without it.
//
// The limits that guard a service against its clients (calls of 64 MiB that wait for answers, 64
// lines) are not kept: both are one program. The other rules of the headers hold.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "platform/util/fork_generation.h"
#include "platform/util/library_thread.h"
#include "platform/util/mutex.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/carrier.h"
#include "platform/zqbus/failures.h"
#include "platform/zqbus/limits.h"
#include "platform/zqbus/memory_of.h"
#include "platform/zqbus/peer.h"
#include "platform/zqbus/run_handler.h"
#include "platform/zqbus/trace.h"
#include "zqbus/inspection.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::hours kLongestSleep{1};

/// Appends copies of the arguments of `from` to `to`, so that neither side sees the other's memory.
/// `Unusable` for an argument of a type that no bus carries, `TooLarge`, `Unreadable` for too many
/// arguments; `to` is of no further use then.
ZQBusFailure carry(const ZQBusMessage& from, ZQBusMessage& to) {
  std::size_t size = 0;
  for (const ZQBusArgument& argument : from.arguments()) {
    if (std::holds_alternative<std::monostate>(argument)) return ZQBusFailure::Unusable;
    const std::size_t content = contentSize(argument);
    size += content;
    if (content > kMaxContent || size > kMaxMessage) return ZQBusFailure::TooLarge;
  }
  if (from.argCount() > kMaxArguments) return ZQBusFailure::Unreadable;
  for (const ZQBusArgument& argument : from.arguments()) {
    const auto* block = std::get_if<ZQBusBytes>(&argument);
    to.append(block != nullptr ? ZQBusBytes::copyOf(block->data.get(), block->size) : argument);
  }
  return ZQBusFailure::None;
}

/// A method's name is one that D-Bus takes.
bool isMethod(const std::string& name) {
  const auto fits = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
  return !name.empty() && name.size() <= 255 && std::isdigit(name[0] & 0xFF) == 0 &&
         std::all_of(name.begin(), name.end(), fits);
}

/// A call that waits for its one outcome. The bus's mutex guards `peer`, `done` and `reply` until
/// it is done.
struct Call {
  std::shared_ptr<Peer> peer;
  std::chrono::microseconds timeout;
  bool asynchronous;
  ServiceWay::ReplyFunction onReply;  // of an asynchronous call, may be empty
  const Clock::time_point deadline = Clock::now() + timeout;
  bool done = false;
  ZQBusMessage reply;
};
struct Request {
  ZQBusMessage message;
  std::shared_ptr<Call> call;
};
/// A service that owns its name. The bus's mutex guards it, but for the name.
struct Owner {
  std::string name;  // its unique name
  std::deque<Request> requests;
  bool ending = false;
};
/// Of the events of one owner or, without one, of broadcasts.
struct Listener {
  std::string owner;
  std::string event;
  EventFunction hear;
};

class Bus {
 public:
  /// The bus of this process; a forked child has another, empty one.
  static Bus& instance();

  /// Takes the name of `service`; null when it is owned.
  std::shared_ptr<Owner> claim(const std::string& service);
  /// Takes the next request; false once the service ends. Blocks.
  bool take(Owner& owner, Request& request);
  void end(Owner& owner);
  /// Gives the name back: calls that wait for the owner fail, and its death is told.
  void release(const std::string& service, const Owner& owner);
  std::string ownerOf(const std::string& service);

  /// Connects the client side. Once, before all that follows.
  void connect(DeliveryQueue& deliveries);
  const std::string& clientName() const { return clientName_; }
  std::shared_ptr<Peer> addPeer(const std::string& service, const std::string& owner);
  void setDeathCallback(Peer& peer, std::function<void()> onDeath);
  void send(const std::shared_ptr<Call>& call, const ZQBusMessage& request);
  /// Blocks until the call has its outcome.
  void await(Call& call);
  /// Ends a call that waits; does nothing to another one.
  void answer(Call& call, ZQBusMessage outcome);

  void add(std::shared_ptr<Listener> listener);
  void remove(const std::shared_ptr<Listener>& listener);
  /// Delivers an event of `owner`, or a broadcast without one.
  void publish(const std::string& owner, const std::string& event, const ZQBusMessage& content);

 private:
  std::string newName() REQUIRES(mutex_) { return ":1." + std::to_string(++names_); }
  void finish(Call& call, ZQBusMessage outcome) REQUIRES(mutex_);
  void deliver(DeliveryQueue::Job job) REQUIRES(mutex_);
  Clock::time_point expire() REQUIRES(mutex_);
  void runDeliveries() EXCLUDES(mutex_);

  const int generation_ = forkGeneration();
  std::string clientName_;
  DeliveryQueue* deliveries_ = nullptr;
  Mutex mutex_;
  ConditionVariable changed_;              // for callers and services
  ConditionVariable due_;                  // for the thread that runs the deliveries
  uint64_t names_ GUARDED_BY(mutex_) = 0;  // given so far
  std::map<std::string, std::shared_ptr<Owner>> owners_ GUARDED_BY(mutex_);  // by service
  std::vector<std::weak_ptr<Peer>> peers_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Call>> calls_ GUARDED_BY(mutex_);  // that wait, as they were sent
  std::vector<std::shared_ptr<Listener>> listeners_ GUARDED_BY(mutex_);
  bool isDue_ GUARDED_BY(mutex_) = false;  // deliveries_->run()
};

Bus& Bus::instance() {
  // Never destroyed: its thread may be at work until the process ends.
  static std::atomic<Bus*> bus = nullptr;
  for (Bus* now = bus;;) {
    if (now != nullptr && now->generation_ == forkGeneration()) return *now;
    auto* const made = new Bus;
    if (bus.compare_exchange_strong(now, made)) return *made;
    delete made;
  }
}

// --- Owners --------------------------------------------------------------------------------------

std::shared_ptr<Owner> Bus::claim(const std::string& service) {
  const MutexLock lock(mutex_);
  const auto [entry, isFree] = owners_.try_emplace(service, std::make_shared<Owner>());
  if (!isFree) return nullptr;
  entry->second->name = newName();
  return entry->second;
}

bool Bus::take(Owner& owner, Request& request) {
  const MutexLock lock(mutex_);
  while (!owner.ending && owner.requests.empty()) changed_.wait(mutex_);
  if (owner.ending) return false;
  request = std::move(owner.requests.front());
  owner.requests.pop_front();
  return true;
}

void Bus::end(Owner& owner) {
  const MutexLock lock(mutex_);
  owner.ending = true;
  changed_.notifyAll();
}

void Bus::release(const std::string& service, const Owner& owner) {
  const MutexLock lock(mutex_);
  owners_.erase(service);
  for (const auto& weak : peers_) {
    const auto peer = weak.lock();
    if (peer == nullptr || peer->owner != owner.name || !peer->leave()) continue;
    for (const auto& call : std::vector(calls_)) {
      if (call->peer == peer) finish(*call, peerGone(service));
    }
    deliver(peer->deathNotice(*deliveries_));
  }
}

std::string Bus::ownerOf(const std::string& service) {
  const MutexLock lock(mutex_);
  const auto found = owners_.find(service);
  return found != owners_.end() ? found->second->name : std::string();
}

std::shared_ptr<Peer> Bus::addPeer(const std::string& service, const std::string& owner) {
  auto peer = std::make_shared<Peer>(service, owner);
  const MutexLock lock(mutex_);
  std::erase_if(peers_, [](const auto& weak) { return weak.expired(); });
  peers_.push_back(peer);
  const auto found = owners_.find(service);
  if (found == owners_.end() || found->second->name != owner) peer->leave();
  return peer;
}

void Bus::setDeathCallback(Peer& peer, std::function<void()> onDeath) {
  Peer::DeathCallback callback = Peer::shared(std::move(onDeath));
  const MutexLock lock(mutex_);
  peer.setDeathCallback(callback);
  if (peer.gone()) deliver(peer.deathNotice(*deliveries_));
}

// --- Calls ---------------------------------------------------------------------------------------

void Bus::send(const std::shared_ptr<Call>& call, const ZQBusMessage& request) {
  ZQBusMessage arrived(ZQBusMessageType::MethodCall, request.name());
  const ZQBusFailure failure =
      isMethod(request.name()) ? carry(request, arrived) : ZQBusFailure::Unusable;
  const MutexLock lock(mutex_);
  calls_.push_back(call);
  if (call->peer->gone()) return finish(*call, peerGone(call->peer->service));
  switch (failure) {
    case ZQBusFailure::None:
      owners_.at(call->peer->service)->requests.push_back({std::move(arrived), call});
      if (call->asynchronous) due_.notifyOne();  // its deadline may be the next
      return changed_.notifyAll();
    case ZQBusFailure::TooLarge:
      return finish(*call, tooLarge());
    case ZQBusFailure::Unreadable:
      return finish(*call, ZQBusMessage::failed(ZQBusFailure::Service, "cannot read the call"));
    default:
      return finish(*call, cannotSend("the name or an argument is not one that a bus carries"));
  }
}

void Bus::await(Call& call) {
  const MutexLock lock(mutex_);
  while (!call.done && changed_.waitUntil(mutex_, call.deadline)) {
  }
  finish(call, timedOut(call.timeout));
}

void Bus::answer(Call& call, ZQBusMessage outcome) {
  const MutexLock lock(mutex_);
  finish(call, Clock::now() < call.deadline ? std::move(outcome) : timedOut(call.timeout));
}

/// Gives a call its outcome, unless it has one.
void Bus::finish(Call& call, ZQBusMessage outcome) {
  if (std::exchange(call.done, true)) return;
  call.reply = std::move(outcome);
  call.peer.reset();  // the caller may keep the reply, and with it the call
  const auto entry = std::find_if(calls_.begin(), calls_.end(),
                                  [&](const auto& waiting) { return waiting.get() == &call; });
  const std::shared_ptr<Call> ended = std::move(*entry);
  calls_.erase(entry);
  changed_.notifyAll();
  if (ended->onReply) deliver([ended] { ended->onReply({ended, &ended->reply}); });
}

/// Ends the asynchronous calls whose deadline has passed. Returns the next deadline.
Clock::time_point Bus::expire() {
  const auto now = Clock::now();
  auto next = now + kLongestSleep;
  for (const auto& call : std::vector(calls_)) {
    if (!call->asynchronous) continue;
    if (call->deadline > now) next = std::min(next, call->deadline);
    if (call->deadline <= now) finish(*call, timedOut(call->timeout));
  }
  return next;
}

// --- Events and deliveries -----------------------------------------------------------------------

void Bus::add(std::shared_ptr<Listener> listener) {
  const MutexLock lock(mutex_);
  listeners_.push_back(std::move(listener));
}

void Bus::remove(const std::shared_ptr<Listener>& listener) {
  const MutexLock lock(mutex_);
  std::erase(listeners_, listener);
}

void Bus::publish(const std::string& owner, const std::string& event, const ZQBusMessage& content) {
  const auto arrived = std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, event);
  if (carry(content, *arrived) != ZQBusFailure::None) return busLog("cannot send " + event);
  const MutexLock lock(mutex_);
  for (const auto& listener : listeners_) {
    if (listener->owner != owner || listener->event != event) continue;
    const bool isIdle = deliveries_->postEvent(
        [weak = std::weak_ptr(listener), arrived] {
          if (const auto heard = weak.lock()) heard->hear(arrived);
        },
        memoryOf(*arrived));
    isDue_ = isDue_ || isIdle;
  }
  due_.notifyOne();
}

void Bus::connect(DeliveryQueue& deliveries) {
  const MutexLock lock(mutex_);
  deliveries_ = &deliveries;
  clientName_ = newName();
  startLibraryThread("zqbus-deliver", [this] { runDeliveries(); }).detach();
}

/// Has a job run, if there is one.
void Bus::deliver(DeliveryQueue::Job job) {
  if (!job) return;
  isDue_ = deliveries_->post(std::move(job)) || isDue_;
  due_.notifyOne();
}

void Bus::runDeliveries() {
  for (MutexLock lock(mutex_);;) {
    const auto next = expire();
    if (std::exchange(isDue_, false)) {
      lock.unlock();
      deliveries_->run();
      lock.lock();
    } else {
      due_.waitUntil(mutex_, next);
    }
  }
}

// --- The client's side ---------------------------------------------------------------------------

class Subscribed : public Subscription {
 public:
  Subscribed(std::string owner, std::string event, EventFunction hear)
      : listener_(std::make_shared<Listener>(
            Listener{std::move(owner), std::move(event), std::move(hear)})) {
    Bus::instance().add(listener_);
  }
  ~Subscribed() override { Bus::instance().remove(listener_); }

 private:
  const std::shared_ptr<Listener> listener_;
};

class Way : public ServiceWay {
 public:
  Way(const std::string& service, const std::string& owner)
      : peer_(Bus::instance().addPeer(service, owner)) {}
  ~Way() override { Bus::instance().setDeathCallback(*peer_, {}); }

  const std::string& owner() const override { return peer_->owner; }
  ZQBusWay way() const override { return ZQBusWay::InProcess; }
  std::shared_ptr<ZQBusMessage> call(const ZQBusMessage& request, Duration timeout) override {
    const std::shared_ptr<Call> call(new Call{peer_, timeout, false, {}});
    Bus::instance().send(call, request);
    Bus::instance().await(*call);
    return {call, &call->reply};
  }
  void callAsync(const ZQBusMessage& request, ReplyFunction onReply, Duration timeout) override {
    const std::shared_ptr<Call> call(new Call{peer_, timeout, true, std::move(onReply)});
    Bus::instance().send(call, request);
  }
  std::unique_ptr<Subscription> subscribe(const std::string& event, EventFunction listener,
                                          Clock::time_point) override {
    if (peer_->gone()) return nullptr;
    return std::make_unique<Subscribed>(peer_->owner, event, std::move(listener));
  }
  void setDeathCallback(std::function<void()> onDeath) override {
    Bus::instance().setDeathCallback(*peer_, std::move(onDeath));
  }

 private:
  const std::shared_ptr<Peer> peer_;
};

/// Is never lost; all who use it are one user.
struct Connection : BusConnection {
  bool lost() override { return false; }
  bool isTrusted(const std::string&) override { return true; }
  std::string placeOf(const std::string& service) override {
    return service + " on the bus inside this process";
  }
  std::optional<std::string> ownerOf(const std::string& service) override {
    return Bus::instance().ownerOf(service);
  }
  bool startService(const std::string&, std::string&) override { return false; }
  std::unique_ptr<ServiceWay> wayTo(const std::string& service, const std::string& owner) override {
    return std::make_unique<Way>(service, owner);
  }
  std::unique_ptr<Subscription> subscribe(const std::string& event, bool, EventFunction listener,
                                          Clock::time_point) override {
    return std::make_unique<Subscribed>(std::string(), event, std::move(listener));
  }
};

class InProcessCarrier : public Carrier {
 public:
  explicit InProcessCarrier(DeliveryQueue& deliveries) : deliveries_(deliveries) {}
  std::shared_ptr<BusConnection> connect(Clock::time_point, std::function<void()>,
                                         std::string&) override {
    Bus::instance().connect(deliveries_);
    return std::make_shared<Connection>();
  }

 private:
  DeliveryQueue& deliveries_;
};

// --- The service's side --------------------------------------------------------------------------

class ReceivedCall : public ZQBusCall {
 public:
  explicit ReceivedCall(Request request) : request_(std::move(request)) {}

  const ZQBusMessage& message() const override { return request_.message; }
  const std::string& sender() const override { return Bus::instance().clientName(); }
  ZQBusWay way() const override { return ZQBusWay::InProcess; }
  void reply(const ZQBusMessage& result) override {
    ZQBusMessage arrived;
    const ZQBusFailure failure = carry(result, arrived);
    if (failure == ZQBusFailure::Unreadable) arrived = unreadable("it holds too many values");
    const bool isSent = failure == ZQBusFailure::None || failure == ZQBusFailure::Unreadable;
    if (!isSent) return fail("cannot send the answer");
    Bus::instance().answer(*request_.call, std::move(arrived));
  }
  void fail(const std::string& text) override {
    Bus::instance().answer(*request_.call, ZQBusMessage::failed(ZQBusFailure::Service, text));
  }
  void failUnknownMethod() override { fail("no method " + message().name()); }

 private:
  const Request request_;
};

class Service : public ZQBusService {
 public:
  Service(std::string service, std::shared_ptr<Owner> owner, Handler handler)
      : service_(std::move(service)),
        owner_(std::move(owner)),
        handler_(std::move(handler)),
        thread_(startLibraryThread("zqbus-service", [this] { serve(); })) {}
  ~Service() override {
    Bus::instance().end(*owner_);
    thread_.join();
    Bus::instance().release(service_, *owner_);
  }

  void sendEvent(const std::string& event, const ZQBusMessage& content) override {
    Bus::instance().publish(owner_->name, event, content);
  }
  void sendBroadcast(const std::string& event, const ZQBusMessage& content) override {
    Bus::instance().publish({}, event, content);
  }
  void setLostCallback(std::function<void()>) override {}  // this bus is never lost

 private:
  void serve() {
    for (Request request; Bus::instance().take(*owner_, request);) {
      runHandler(handler_, std::make_shared<ReceivedCall>(std::move(request)));
    }
  }

  const std::string service_;
  const std::shared_ptr<Owner> owner_;
  const Handler handler_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Carrier> makeCarrier(DeliveryQueue& deliveries) {
  return std::make_unique<InProcessCarrier>(deliveries);
}

std::unique_ptr<ZQBusService> ZQBusService::claim(const std::string& service,
                                                  ZQBusServiceDescription description,
                                                  Handler handler, std::string& error) {
  auto owner = Bus::instance().claim(service);
  if (owner != nullptr) {
    return traced(std::make_unique<Service>(service, std::move(owner),
                                            traced(std::move(handler), service, description)),
                  service);
  }
  error = service + " is owned by another service";
  return nullptr;
}

ZQBusInspection inspectZQBus(const std::string& service, std::chrono::milliseconds) {
  ZQBusInspection found;
  found.address = "this process";
  found.name = service;
  if (std::string owner = Bus::instance().ownerOf(service); !owner.empty()) {
    found.owner = ZQBusParty{std::move(owner), ::getpid(), ::geteuid()};
  }
  return found;
}

}  // namespace zq
