#include "client_bus_connection.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::chrono::seconds kPingTimeout{1};

/// Never destroyed: the library's threads may call the bus until the process has ended.
const ClientConnection::Target& theBus() {
  static const auto* const target =
      new ClientConnection::Target{kBusName, kBusPath, kBusName, nullptr};
  return *target;
}

/// `longest`, or the rest of this thread's time limit when that is shorter.
ClientConnection::Duration timeLeft(ClientConnection::Duration longest) {
  const auto now = ClientConnection::Clock::now();
  return std::chrono::duration_cast<ClientConnection::Duration>(withinTimeLimit(now + longest) -
                                                                now);
}

}  // namespace

std::shared_ptr<ClientBusConnection> ClientBusConnection::open(DeliveryQueue& deliveries,
                                                               Clock::time_point deadline,
                                                               std::function<void()> onLoss,
                                                               std::string& error) {
  SdBus bus = openSdBus(deadline, Descriptors::Refused, error);
  if (bus == nullptr) return nullptr;
  const uid_t user = userOn(bus.get(), deadline);
  auto connection =
      std::make_shared<ClientBusConnection>(std::move(bus), deliveries, std::move(onLoss), user);
  if (const int started = connection->start(); started < 0) {
    error = std::string("cannot read the bus: ") + std::strerror(-started);
    return nullptr;
  }
  return connection;
}

ClientBusConnection::ClientBusConnection(SdBus connection, DeliveryQueue& deliveries,
                                         std::function<void()> onLoss, uid_t user)
    : ClientConnection(std::move(connection), deliveries, ZQBusFailure::BusGone, user),
      onLoss_(std::move(onLoss)) {}

ClientBusConnection::~ClientBusConnection() {
  stop();
}

std::shared_ptr<ZQBusMessage> ClientBusConnection::askAndWait(const char* method,
                                                              const std::string& name,
                                                              const CallExtras& extras) {
  ZQBusMessage request(ZQBusMessageType::MethodCall, method);
  request.appendString(name);
  return call(theBus(), request, timeLeft(kDefaultTimeout), extras);
}

// --- Names ---------------------------------------------------------------------------------------

std::optional<std::string> ClientBusConnection::ownerOf(const std::string& service) {
  uint64_t changes = 0;
  // Subscribes to changes first and asks for the owner then: no change is missed.
  const auto subscribe = [&]() REQUIRES(loop_->mutex()) {
    track(service);
    changes = owners_[service].changes;
  };
  const auto reply = askAndWait("GetNameOwner", serviceName(service), {-1, subscribe});
  std::string owner;
  reply->readString(owner, 0);
  if (reply->type() != 2) owner.clear();
  const bool answered = reply->type() == 2 || reply->failure() == ZQBusFailure::PeerGone;
  if (!answered) return std::nullopt;

  const ConnectionLoop::Hold hold(*loop_);
  // A change that was signalled meanwhile is newer than the answer.
  if (owners_[service].changes == changes) setOwner(service, owner);
  return owners_[service].owner;
}

/// The daemon's answer to the request to start a service; it comes once the service has its name.
struct ClientBusConnection::StartAnswer : PendingCall, ConnectionLoop::Waiter {
  ClientBusConnection* connection;
  std::weak_ptr<StartAnswer> self;
  bool started = false;
  std::string error;

  void onOutcome(sd_bus_message* answer) override REQUIRES(connection->loop_->mutex()) {
    const sd_bus_error* const failure =
        answer != nullptr ? sd_bus_message_get_error(answer) : nullptr;
    started = answer != nullptr && failure == nullptr;
    const bool isUnknown =
        failure != nullptr && sd_bus_error_has_name(failure, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0;
    if (failure != nullptr && !isUnknown) {
      error = failure->message != nullptr ? failure->message : failure->name;
    }
    if (const auto waiter = self.lock()) connection->loop_->complete(waiter);
  }
};

bool ClientBusConnection::startService(const std::string& service, std::string& error) {
  const auto answer = std::make_shared<StartAnswer>();
  answer->connection = this;
  answer->self = answer;
  const auto deadline = Clock::now() + timeLeft(kDefaultTimeout);
  ConnectionLoop::Turn turn(*loop_, answer);
  if (loop_->lost()) return false;
  askDaemon("StartServiceByName", serviceName(service), answer, 0);
  turn.waitUntil(deadline);
  error = answer->done ? answer->error : "it did not take its name in time";
  return answer->started;
}

/// Subscribes to the changes of a name's owner; false when that was done before.
bool ClientBusConnection::track(const std::string& service) {
  if (!owners_.try_emplace(service).second) return false;
  struct Refusal : PendingCall {
    void onOutcome(sd_bus_message* answer) override {
      if (answer != nullptr) logRefusal(answer);
    }
  };
  askDaemon("AddMatch",
            std::string("type='signal',sender='") + kBusName + "',interface='" + kBusName +
                "',member='NameOwnerChanged',arg0='" + serviceName(service) + '\'',
            std::make_shared<Refusal>());
  return true;
}

void ClientBusConnection::onDaemonSignal(sd_bus_message* signal) {
  if (sd_bus_message_is_signal(signal, kBusName, "NameOwnerChanged") <= 0) return;
  const char* name = "";
  const char* before = "";
  const char* now = "";
  if (sd_bus_message_read(signal, "sss", &name, &before, &now) < 0) return;
  for (auto& [service, owner] : owners_) {
    if (serviceName(service) != name) continue;
    ++owner.changes;
    setOwner(service, now);
  }
}

void ClientBusConnection::setOwner(const std::string& service, const std::string& owner) {
  owners_[service].owner = owner;
  declareDeadIf([&](const Peer& peer) { return peer.service == service && peer.owner != owner; });
  checkFollowed(service, owner);
}

std::shared_ptr<Peer> ClientBusConnection::bind(const std::string& service,
                                                const std::string& owner) {
  auto peer = addPeer(service, owner);
  const ConnectionLoop::Hold hold(*loop_);
  if (owners_[service].owner != owner) peer->leave();
  return peer;
}

// --- Services that are used on lines -------------------------------------------------------------

/// The daemon's answer to which connection owns a followed name.
struct ClientBusConnection::OwnerAnswer : PendingCall {
  ClientBusConnection* connection;
  std::string service;
  uint64_t changes;

  void onOutcome(sd_bus_message* answer) override REQUIRES(connection->loop_->mutex()) {
    const char* owner = nullptr;
    if (answer == nullptr || sd_bus_message_is_method_error(answer, nullptr) > 0) return;
    if (sd_bus_message_read(answer, "s", &owner) <= 0) return;
    if (connection->owners_[service].changes == changes) connection->setOwner(service, owner);
  }
};

/// The daemon's answer to which process that owner is.
struct ClientBusConnection::ProcessAnswer : PendingCall {
  ClientBusConnection* connection;
  std::string service;
  std::string owner;

  void onOutcome(sd_bus_message* answer) override REQUIRES(connection->loop_->mutex()) {
    uint32_t process = 0;
    if (answer == nullptr || sd_bus_message_is_method_error(answer, nullptr) > 0) return;
    if (sd_bus_message_read(answer, "u", &process) <= 0) return;
    connection->compareProcess(service, owner, static_cast<pid_t>(process));
  }
};

void ClientBusConnection::follow(const std::string& service, pid_t process,
                                 const std::string& owner, std::weak_ptr<ClientConnection> line) {
  const ConnectionLoop::Hold hold(*loop_);
  if (loop_->lost()) return;
  // A process may open one line after the other to a service that lives on.
  std::erase_if(followed_, [](const Followed& followed) { return followed.line.expired(); });
  followed_.push_back({service, process, owner, std::move(line)});
  if (!track(service)) return checkFollowed(service, owners_[service].owner);
  const auto answer = std::make_shared<OwnerAnswer>();
  answer->connection = this;
  answer->service = service;
  answer->changes = owners_[service].changes;
  askDaemon("GetNameOwner", serviceName(service), answer);
  loop_->afterSend();
}

/// Asks for the process of the owner when a followed service has another owner than before.
void ClientBusConnection::checkFollowed(const std::string& service, const std::string& owner) {
  const bool isOther = std::any_of(followed_.begin(), followed_.end(), [&](const auto& followed) {
    return followed.service == service && followed.owner != owner;
  });
  if (owner.empty() || !isOther) return;
  const auto answer = std::make_shared<ProcessAnswer>();
  answer->connection = this;
  answer->service = service;
  answer->owner = owner;
  askDaemon("GetConnectionUnixProcessID", owner, answer);
  loop_->afterSend();
}

void ClientBusConnection::compareProcess(const std::string& service, const std::string& owner,
                                         pid_t process) {
  std::erase_if(followed_, [&](Followed& followed) REQUIRES(loop_->mutex()) {
    if (followed.service != service) return false;
    if (followed.process == process) {
      followed.owner = owner;
      return false;
    }
    deliver([line = std::move(followed.line), service] {
      const auto open = line.lock();
      if (open == nullptr) return;
      busLog("another process owns " + serviceName(service) + ": its old line is cut");
      open->cut();
    });
    return true;
  });
}

// --- Trust ---------------------------------------------------------------------------------------

struct ClientBusConnection::TrustAnswer : ConnectionLoop::Waiter {
  bool trusted = false;
};

bool ClientBusConnection::isTrusted(const std::string& uniqueName) {
  const auto answer = std::make_shared<TrustAnswer>();
  const auto deadline = Clock::now() + timeLeft(kDefaultTimeout);
  ConnectionLoop::Turn turn(*loop_, answer);
  if (loop_->lost()) return false;
  const bool asked = trust_.check(loop_->bus(), uniqueName.c_str(),
                                  [this, answer](bool trusted) REQUIRES(loop_->mutex()) {
                                    answer->trusted = trusted;
                                    loop_->complete(answer);
                                  });
  if (asked) turn.waitUntil(deadline);
  return answer->trusted;
}

bool ClientBusConnection::mayBeAlive(const std::string& uniqueName) {
  const ZQBusMessage ping(ZQBusMessageType::MethodCall, "Ping");
  const Target target{uniqueName, "/", "org.freedesktop.DBus.Peer", nullptr};
  return call(target, ping, timeLeft(kPingTimeout))->failure() != ZQBusFailure::PeerGone;
}

void ClientBusConnection::onConnectionLost() {
  busLog("the connection to the bus is lost");
  ClientConnection::onConnectionLost();
  owners_.clear();
  followed_.clear();
  onLoss_();
}

}  // namespace zq
