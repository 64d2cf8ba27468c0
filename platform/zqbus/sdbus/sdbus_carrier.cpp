// D-Bus beneath the rules: connections to the bus, and services on it or on direct lines.
#include <algorithm>
#include <map>
#include <utility>

#include "client_bus_connection.h"
#include "client_line.h"
#include "platform/util/mutex.h"
#include "platform/zqbus/carrier.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::chrono::seconds kAnnounceTime{3};

/// The way to a service through the bus or on its line.
class WayOnConnection : public ServiceWay {
 public:
  /// `target` is the service behind its peer, as `connection` reaches it. `announcesListeners` when
  /// the service has refused this client a line.
  WayOnConnection(std::shared_ptr<ClientConnection> connection, ClientConnection::Target target,
                  bool announcesListeners)
      : connection_(std::move(connection)),
        target_(std::move(target)),
        announcesListeners_(announcesListeners) {}
  ~WayOnConnection() override { connection_->setDeathCallback(target_.peer, {}); }

  const std::string& owner() const override { return target_.peer->owner; }
  ZQBusWay way() const override {
    return target_.destination.empty() ? ZQBusWay::Direct : ZQBusWay::Broker;
  }
  std::shared_ptr<ZQBusMessage> call(const ZQBusMessage& request, Duration timeout) override {
    return connection_->call(target_, request, timeout);
  }
  void callAsync(const ZQBusMessage& request, ReplyFunction onReply, Duration timeout) override {
    connection_->callAsync(target_, request, std::move(onReply), timeout);
  }
  std::unique_ptr<Subscription> subscribe(const std::string& event, EventFunction listener,
                                          Clock::time_point deadline) override;
  void setDeathCallback(std::function<void()> onDeath) override {
    connection_->setDeathCallback(target_.peer, std::move(onDeath));
  }

 private:
  bool announceListener(Clock::time_point deadline);

  const std::shared_ptr<ClientConnection> connection_;
  const ClientConnection::Target target_;
  const bool announcesListeners_;
};

std::unique_ptr<Subscription> WayOnConnection::subscribe(const std::string& event,
                                                         EventFunction listener,
                                                         Clock::time_point deadline) {
  auto subscription = connection_->subscribe({target_.interface, event, target_.destination},
                                             std::move(listener), deadline);
  if (subscription != nullptr && announcesListeners_ && !announceListener(deadline)) return nullptr;
  return subscription;
}

/// A service whose clients have lines sends its events on the bus only while it knows of a client
/// there. A service that answers late knows of the caller, too. False when the service is gone.
bool WayOnConnection::announceListener(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<ClientConnection::Duration>(
      std::min(deadline, Clock::now() + kAnnounceTime) - Clock::now());
  ClientConnection::Target target = target_;
  target.interface = kDirectInterface;
  const auto answer =
      connection_->call(target, ZQBusMessage(ZQBusMessageType::MethodCall, kDirectListen), left);
  return answer->failure() != ZQBusFailure::PeerGone && answer->failure() != ZQBusFailure::BusGone;
}

/// The direct lines of this process, which live on when the bus is lost.
class DirectLines {
 public:
  /// Notes a line that was opened through `bus`.
  void add(const DirectLine& line, const std::shared_ptr<Peer>& peer,
           const std::shared_ptr<ClientBusConnection>& bus) EXCLUDES(mutex_);
  /// Whether the last line to a service has ended, and with it that owner.
  bool ended(const std::string& service, const std::string& owner) EXCLUDES(mutex_);
  /// Has a new connection to the bus follow the owners of all lines, those to come included.
  void follow(const std::shared_ptr<ClientBusConnection>& bus) EXCLUDES(mutex_);

 private:
  struct Line {
    std::weak_ptr<ClientConnection> connection;
    std::shared_ptr<Peer> peer;
    pid_t process;
  };
  static void follow(ClientBusConnection& bus, const Line& line, const std::string& owner);

  Mutex mutex_;
  std::map<std::string, Line> lines_ GUARDED_BY(mutex_);  // the last line to each service
  std::weak_ptr<ClientBusConnection> bus_ GUARDED_BY(mutex_);
};

void DirectLines::add(const DirectLine& line, const std::shared_ptr<Peer>& peer,
                      const std::shared_ptr<ClientBusConnection>& bus) {
  const Line used{line.connection, peer, line.process};
  std::shared_ptr<ClientBusConnection> current;
  {
    const MutexLock lock(mutex_);
    lines_[peer->service] = used;
    current = bus_.lock();
  }
  if (current != nullptr) follow(*current, used, current == bus ? peer->owner : "");
}

bool DirectLines::ended(const std::string& service, const std::string& owner) {
  const MutexLock lock(mutex_);
  const auto found = lines_.find(service);
  if (found == lines_.end()) return false;
  const Peer& known = *found->second.peer;
  return known.gone() && known.owner == owner;
}

void DirectLines::follow(const std::shared_ptr<ClientBusConnection>& bus) {
  std::map<std::string, Line> lines;
  {
    const MutexLock lock(mutex_);
    bus_ = bus;
    lines = lines_;
  }
  for (const auto& [service, line] : lines) follow(*bus, line, {});
}

/// A service also ends when another process takes its name, while its line is still open.
void DirectLines::follow(ClientBusConnection& bus, const Line& line, const std::string& owner) {
  if (line.connection.expired()) return;
  bus.follow(line.peer->service, line.process, owner, line.connection);
}

/// A connection to the bus, and the lines beside it.
class Bus : public BusConnection {
 public:
  Bus(std::shared_ptr<ClientBusConnection> connection, std::string address, DirectLines& lines,
      DeliveryQueue& deliveries)
      : connection_(std::move(connection)),
        address_(std::move(address)),
        lines_(lines),
        deliveries_(deliveries) {}

  bool lost() override { return connection_->lost(); }
  std::string placeOf(const std::string& service) override {
    return serviceName(service) + " on the bus at " + address_;
  }
  std::optional<std::string> ownerOf(const std::string& service) override;
  bool startService(const std::string& service, std::string& error) override {
    return connection_->startService(service, error);
  }
  bool isTrusted(const std::string& owner) override { return connection_->isTrusted(owner); }
  std::unique_ptr<ServiceWay> wayTo(const std::string& service, const std::string& owner) override;
  std::unique_ptr<Subscription> subscribe(const std::string& event, bool trustedOnly,
                                          EventFunction listener,
                                          Clock::time_point deadline) override {
    return connection_->subscribe({kBroadcastInterface, event, {}, trustedOnly},
                                  std::move(listener), deadline);
  }

 private:
  const std::shared_ptr<ClientBusConnection> connection_;
  const std::string address_;
  DirectLines& lines_;
  DeliveryQueue& deliveries_;
};

/// The end of a direct line may be known here before the bus has heard of the process's death.
std::optional<std::string> Bus::ownerOf(const std::string& service) {
  std::optional<std::string> owner = connection_->ownerOf(service);
  if (owner && lines_.ended(service, *owner) && !connection_->mayBeAlive(*owner)) owner->clear();
  return owner;
}

std::unique_ptr<ServiceWay> Bus::wayTo(const std::string& service, const std::string& owner) {
  const auto onBus = connection_->bind(service, owner);
  ClientConnection::Target target{owner, servicePath(service), serviceName(service), onBus};
  const DirectLine line = openDirectLine(service, owner, deliveries_);
  if (line.connection == nullptr) {
    return std::make_unique<WayOnConnection>(connection_, std::move(target), line.isRefused);
  }
  target.destination.clear();
  target.peer = line.connection->addPeer(service, owner);
  lines_.add(line, target.peer, connection_);
  return std::make_unique<WayOnConnection>(line.connection, std::move(target), false);
}

class SdBusCarrier : public Carrier {
 public:
  explicit SdBusCarrier(DeliveryQueue& deliveries) : deliveries_(deliveries) {}

  std::shared_ptr<BusConnection> connect(std::chrono::steady_clock::time_point deadline,
                                         std::function<void()> onLoss,
                                         std::string& error) override {
    std::string address = busAddress();
    auto opened = ClientBusConnection::open(deliveries_, deadline, std::move(onLoss), error);
    if (opened == nullptr) return nullptr;
    lines_.follow(opened);
    return std::make_shared<Bus>(std::move(opened), std::move(address), lines_, deliveries_);
  }

 private:
  DeliveryQueue& deliveries_;
  DirectLines lines_;
};

}  // namespace

std::unique_ptr<Carrier> makeCarrier(DeliveryQueue& deliveries) {
  return std::make_unique<SdBusCarrier>(deliveries);
}

}  // namespace zq
