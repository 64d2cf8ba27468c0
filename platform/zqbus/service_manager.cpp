#include <map>
#include <mutex>
#include <vector>

#include "bus_connection.h"
#include "bus_log.h"
#include "direct_line.h"
#include "proxy_interface.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

std::atomic<ZQBusLogSink> logSink = nullptr;

class ServiceManager : public ZQBusSerivceManager {
 public:
  static ServiceManager& instance() {
    // Never destroyed: its threads may be at work until the process ends.
    static auto* const manager = new ServiceManager;
    return *manager;
  }

  /// The connection, made anew when it is lost; null when that fails.
  std::shared_ptr<BusConnection> connect(int timeoutMs);

  bool isServiceRegistered(const std::string& service) override;
  std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string& service,
                                                                ZQBusSecurityFlags flags,
                                                                int version) override;
  bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags flags) override;
  uint64_t droppedEvents() const override { return deliveries_.droppedEvents(); }
  void waitForCallbacks() override {}

 private:
  struct Broadcast {
    std::string event;
    std::shared_ptr<ZQBusEventCallback> callback;
    ZQBusSecurityFlags flags;
    std::unique_ptr<Channel::Subscription> subscription;
  };
  static void subscribe(Broadcast& broadcast, const std::shared_ptr<BusConnection>& connection,
                        Channel::Clock::time_point deadline);
  std::string ownerOf(BusConnection& connection, const std::string& service);

  DeliveryQueue deliveries_;
  std::mutex mutex_;
  std::shared_ptr<BusConnection> connection_;
  std::vector<Broadcast> broadcasts_;
  // By service, the last one that was reached on a direct line.
  std::map<std::string, std::shared_ptr<Peer>> onLine_;
};

std::shared_ptr<BusConnection> ServiceManager::connect(int timeoutMs) {
  const std::lock_guard lock(mutex_);
  if (connection_ != nullptr && !connection_->lost()) return connection_;
  const std::chrono::milliseconds timeout =
      timeoutMs < 0 ? kDefaultTimeout : std::chrono::milliseconds(timeoutMs);
  const auto deadline = Channel::Clock::now() + timeout;
  std::string error;
  std::shared_ptr<BusConnection> opened = BusConnection::open(deliveries_, deadline, error);
  if (opened == nullptr) {
    busLog(error);
    return nullptr;
  }
  for (Broadcast& broadcast : broadcasts_) broadcast.subscription.reset();
  connection_ = std::move(opened);
  for (Broadcast& broadcast : broadcasts_) subscribe(broadcast, connection_, deadline);
  return connection_;
}

bool ServiceManager::isServiceRegistered(const std::string& service) {
  const auto connection = connect(-1);
  return connection != nullptr && !ownerOf(*connection, service).empty();
}

/// The owner of a service's name, empty when nobody is there. The end of a direct line may be known
/// here before the bus has heard of the process's death.
std::string ServiceManager::ownerOf(BusConnection& connection, const std::string& service) {
  std::string owner = connection.ownerOf(service);
  std::shared_ptr<Peer> known;
  {
    const std::lock_guard lock(mutex_);
    known = onLine_[service];
  }
  const bool lineEnded = known != nullptr && known->gone && known->owner == owner;
  if (lineEnded && !connection.mayBeAlive(owner)) owner.clear();
  return owner;
}

std::shared_ptr<ZQBusProxyInterface> ServiceManager::getServiceProxyInterface(
    const std::string& service, ZQBusSecurityFlags flags, int) {
  const auto connection = connect(-1);
  if (connection == nullptr) return nullptr;
  const std::string owner = ownerOf(*connection, service);
  if (owner.empty()) return nullptr;
  if (flags == ZQBusSecurityFlags::TrustedPeer && !connection->isTrusted(owner)) {
    busLog("the owner of " + serviceName(service) + " is neither this user nor root");
    return nullptr;
  }
  const auto onBus = connection->bind(service, owner);
  Channel::Target target{owner, servicePath(service), serviceName(service), onBus};
  const auto line = openDirectLine(*connection, onBus, deliveries_);
  if (line == nullptr) return std::make_shared<ProxyInterface>(connection, std::move(target));
  target.destination.clear();
  target.peer = line->addPeer(service, owner);
  {
    const std::lock_guard lock(mutex_);
    onLine_[service] = target.peer;
  }
  return std::make_shared<ProxyInterface>(line, std::move(target));
}

bool ServiceManager::addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                      ZQBusSecurityFlags flags) {
  if (callback == nullptr) return false;
  std::shared_ptr<BusConnection> connection;  // outlives the subscription
  Broadcast broadcast{event, std::shared_ptr<ZQBusEventCallback>(callback), flags, nullptr};
  std::size_t index = 0;
  {
    const std::lock_guard lock(mutex_);
    index = broadcasts_.size();
    broadcasts_.push_back({event, broadcast.callback, flags, nullptr});
    connection = connection_;
  }
  if (connection == nullptr) return true;
  // Without the mutex: a bus that does not answer must not hold up those who look for another.
  subscribe(broadcast, connection, Channel::Clock::now() + kDefaultTimeout);
  const std::lock_guard lock(mutex_);
  if (connection_ == connection) broadcasts_[index].subscription.swap(broadcast.subscription);
  return true;
}

void ServiceManager::subscribe(Broadcast& broadcast,
                               const std::shared_ptr<BusConnection>& connection,
                               Channel::Clock::time_point deadline) {
  broadcast.subscription = connection->subscribe(
      kBroadcastInterface, broadcast.event, {},
      [callback = broadcast.callback, flags = broadcast.flags, weak = std::weak_ptr(connection)](
          std::shared_ptr<ZQBusMessage> message, const std::string& sender) {
        const auto connection = weak.lock();
        const bool wanted = flags == ZQBusSecurityFlags::None ||
                            (connection != nullptr && connection->isTrusted(sender));
        if (wanted) (*callback)(std::move(message));
      },
      deadline);
}

}  // namespace

void setZQBusLogSink(ZQBusLogSink sink) {
  logSink = sink;
}

void busLog(const std::string& line) {
  if (const ZQBusLogSink sink = logSink) sink(line.c_str());
}

ZQBusSerivceManager* ZQBusSerivceManager::initSync(int timeoutMs) {
  ServiceManager& manager = ServiceManager::instance();
  return manager.connect(timeoutMs) != nullptr ? &manager : nullptr;
}

}  // namespace zq
