#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>
#include <utility>
#include <vector>

#include "bus_log.h"
#include "carrier.h"
#include "failures.h"
#include "platform/util/fork_generation.h"
#include "platform/util/library_thread.h"
#include "platform/util/mutex.h"
#include "problem.h"
#include "proxy_interface.h"
#include "time_limit.h"
#include "trace.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFirstReopenDelay{100};
constexpr std::chrono::milliseconds kLongestReopenDelay{5000};
constexpr int kReopenTimeoutMs = 5000;

bool mayStartServices() {
  const char* setting = std::getenv("ZQBUS_ACTIVATE");
  return setting == nullptr || std::strcmp(setting, "0") != 0;
}

class ServiceManager : public ZQBusSerivceManager {
 public:
  static ServiceManager& instance();

  /// The connection, made anew when it is lost; null when that fails, and in a forked child.
  std::shared_ptr<BusConnection> connect(int timeoutMs);

  bool isServiceRegistered(const std::string& service) override;
  bool startService(const std::string& service) override;
  std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string& service,
                                                                ZQBusSecurityFlags flags,
                                                                int version) override;
  bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags flags) override;
  uint64_t droppedEvents() const override {
    return isInherited() ? 0 : deliveries_.droppedEvents();
  }
  void waitForCallbacks() override {
    if (!isInherited()) deliveries_.waitForRunning();
  }

 private:
  struct Broadcast {
    std::string event;
    bool trustedOnly;
    std::shared_ptr<ZQBusEventCallback> callback;
    std::shared_ptr<BusConnection> connection;  // of the subscription, which ends before it
    std::unique_ptr<Subscription> subscription;
  };

  /// A thread's turn at connecting; false when another thread's turn lasted until `deadline`.
  class Turn {
   public:
    Turn(ServiceManager& manager, Clock::time_point deadline) EXCLUDES(manager.mutex_);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return taken_; }

   private:
    ServiceManager& manager_;
    bool taken_ = false;
  };

  bool isInherited() const { return generation_ != forkGeneration(); }
  std::shared_ptr<BusConnection> current() EXCLUDES(mutex_);
  std::shared_ptr<BusConnection> open(Clock::time_point deadline) EXCLUDES(mutex_);
  void subscribe(const std::shared_ptr<Broadcast>& broadcast,
                 const std::shared_ptr<BusConnection>& connection, Clock::time_point deadline)
      EXCLUDES(mutex_);
  void reopenInBackground();
  void reopen();
  static bool isOwned(const std::optional<std::string>& owner, BusConnection& connection,
                      const std::string& service);
  std::shared_ptr<ZQBusProxyInterface> findService(const std::string& service,
                                                   ZQBusSecurityFlags flags);

  const int generation_ = forkGeneration();
  DeliveryQueue deliveries_;
  const std::unique_ptr<Carrier> carrier_ = makeCarrier(deliveries_);
  std::string lastError_;  // used by the thread whose turn it is
  std::atomic<bool> reopening_ = false;
  Mutex mutex_;  // not held while the carrier is called
  bool connecting_ GUARDED_BY(mutex_) = false;
  ConditionVariable turnEnded_;
  std::shared_ptr<BusConnection> connection_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Broadcast>> broadcasts_ GUARDED_BY(mutex_);
};

ServiceManager& ServiceManager::instance() {
  // Never destroyed: its threads may run until the process ends. Not a static object of this
  // function: a child that is forked during its construction would wait for it for ever.
  static std::atomic<ServiceManager*> manager = nullptr;
  if (ServiceManager* const made = manager.load()) return *made;
  auto* const made = new ServiceManager;
  ServiceManager* first = nullptr;
  if (manager.compare_exchange_strong(first, made)) return *made;
  delete made;
  return *first;
}

// --- The connection ------------------------------------------------------------------------------

std::shared_ptr<BusConnection> ServiceManager::current() {
  const MutexLock lock(mutex_);
  return connection_;
}

ServiceManager::Turn::Turn(ServiceManager& manager, Clock::time_point deadline)
    : manager_(manager) {
  const MutexLock lock(manager.mutex_);
  while (manager.connecting_ && manager.turnEnded_.waitUntil(manager.mutex_, deadline)) {
  }
  taken_ = !std::exchange(manager.connecting_, true);
}

ServiceManager::Turn::~Turn() {
  if (!taken_) return;
  const MutexLock lock(manager_.mutex_);
  manager_.connecting_ = false;
  manager_.turnEnded_.notifyAll();
}

std::shared_ptr<BusConnection> ServiceManager::connect(int timeoutMs) {
  noteNoProblem();
  if (isInherited()) {
    noteProblem(ZQBusProblem::Kind::Forked, kInherited);
    return nullptr;
  }
  if (auto now = current(); now != nullptr && !now->lost()) return now;
  const std::chrono::milliseconds timeout =
      timeoutMs < 0 ? kDefaultTimeout : std::chrono::milliseconds(timeoutMs);
  const auto deadline = withinTimeLimit(Clock::now() + timeout);
  const Turn turn(*this, deadline);
  if (!turn) {
    noteProblem(ZQBusProblem::Kind::NoBus, "another thread is still connecting to the bus");
    return nullptr;
  }
  if (auto now = current(); now != nullptr && !now->lost()) return now;
  return open(deadline);
}

/// Connects, and subscribes to the broadcasts again. One thread at a time, by its Turn.
std::shared_ptr<BusConnection> ServiceManager::open(Clock::time_point deadline) {
  std::string error;
  auto opened = carrier_->connect(
      deadline, [this] { reopenInBackground(); }, error);
  if (opened == nullptr) {
    if (error != std::exchange(lastError_, error)) busLog(error);
    traceConnection({}, {}, ZQBusWay::Broker, error);
    noteProblem(ZQBusProblem::Kind::NoBus, error);
    return nullptr;
  }
  lastError_.clear();
  traceConnection({}, {}, ZQBusWay::Broker, {});
  std::vector<std::shared_ptr<Broadcast>> broadcasts;
  std::shared_ptr<BusConnection> before;
  {
    const MutexLock lock(mutex_);
    before = std::exchange(connection_, opened);
    broadcasts = broadcasts_;
  }
  for (const auto& broadcast : broadcasts) subscribe(broadcast, opened, deadline);
  if (before != nullptr) busLog("connected to the bus again");
  return opened;
}

/// Connects again when the bus returns, even if no thread uses it meanwhile: broadcasts and changes
/// of names' owners must arrive again.
void ServiceManager::reopenInBackground() {
  if (reopening_.exchange(true)) return;
  try {
    startLibraryThread("zqbus-reopen", [this] { reopen(); }).detach();
  } catch (const std::exception& error) {
    reopening_ = false;
    busLog("no thread to wait for the bus: ", error.what());
  }
}

void ServiceManager::reopen() {
  for (auto delay = kFirstReopenDelay; connect(kReopenTimeoutMs) == nullptr;
       delay = std::min(2 * delay, kLongestReopenDelay)) {
    std::this_thread::sleep_for(delay);
  }
  reopening_ = false;
  // A loss that was reported before the line above has started no thread.
  if (current()->lost()) reopenInBackground();
}

// --- Services ------------------------------------------------------------------------------------

bool ServiceManager::isServiceRegistered(const std::string& service) {
  const auto connection = connect(-1);
  return connection != nullptr && isOwned(connection->ownerOf(service), *connection, service);
}

/// Whether a service has an owner; notes the problem when it has none.
bool ServiceManager::isOwned(const std::optional<std::string>& owner, BusConnection& connection,
                             const std::string& service) {
  if (owner && !owner->empty()) return true;
  const std::string place = connection.placeOf(service);
  if (owner) {
    noteProblem(ZQBusProblem::Kind::NoService, "nobody owns " + place);
  } else {
    noteProblem(ZQBusProblem::Kind::NoBus, "no answer to the question for the owner of " + place);
  }
  return false;
}

bool ServiceManager::startService(const std::string& service) {
  const auto connection = connect(-1);
  if (connection == nullptr) return false;
  std::string error;
  if (mayStartServices() && connection->startService(service, error)) return true;
  std::string problem = "nobody owns " + connection->placeOf(service);
  if (!error.empty()) {
    problem += ", and the bus cannot start it: " + error;
    busLog(problem);
  }
  noteProblem(ZQBusProblem::Kind::NoService, problem);
  return false;
}

std::shared_ptr<ZQBusProxyInterface> ServiceManager::getServiceProxyInterface(
    const std::string& service, ZQBusSecurityFlags flags, int) {
  return traced(findService(service, flags), service);
}

std::shared_ptr<ZQBusProxyInterface> ServiceManager::findService(const std::string& service,
                                                                 ZQBusSecurityFlags flags) {
  const auto connection = connect(-1);
  if (connection == nullptr) return nullptr;
  const std::optional<std::string> owner = connection->ownerOf(service);
  if (!isOwned(owner, *connection, service)) {
    traceConnection(service, {}, {}, lastZQBusProblem().text);
    return nullptr;
  }
  if (flags == ZQBusSecurityFlags::TrustedPeer && !connection->isTrusted(*owner)) {
    const std::string problem =
        "the owner of " + connection->placeOf(service) + " is neither this user nor root";
    busLog(problem);
    traceConnection(service, *owner, {}, problem);
    noteProblem(ZQBusProblem::Kind::NotTrusted, problem);
    return nullptr;
  }
  return std::make_shared<ProxyInterface>(connection->wayTo(service, *owner));
}

// --- Broadcasts ----------------------------------------------------------------------------------

bool ServiceManager::addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                      ZQBusSecurityFlags flags) {
  if (callback == nullptr) return false;
  const auto broadcast = std::make_shared<Broadcast>();
  broadcast->callback.reset(tracedBroadcast(event, callback));
  if (isInherited()) return false;
  broadcast->event = event;
  broadcast->trustedOnly = flags == ZQBusSecurityFlags::TrustedPeer;
  std::shared_ptr<BusConnection> connection;
  {
    const MutexLock lock(mutex_);
    broadcasts_.push_back(broadcast);
    connection = connection_;
  }
  if (connection != nullptr) {
    subscribe(broadcast, connection, withinTimeLimit(Clock::now() + kDefaultTimeout));
  }
  return true;
}

/// A subscription that a replaced connection made is dropped: the thread that replaced the
/// connection subscribes to every broadcast that it found.
void ServiceManager::subscribe(const std::shared_ptr<Broadcast>& broadcast,
                               const std::shared_ptr<BusConnection>& connection,
                               Clock::time_point deadline) {
  Broadcast subscribed;
  subscribed.connection = connection;
  subscribed.subscription = connection->subscribe(
      broadcast->event, broadcast->trustedOnly,
      [callback = broadcast->callback](std::shared_ptr<ZQBusMessage> message) {
        (*callback)(std::move(message));
      },
      deadline);
  const MutexLock lock(mutex_);
  if (connection_ != connection) return;
  broadcast->connection.swap(subscribed.connection);
  broadcast->subscription.swap(subscribed.subscription);
}

}  // namespace

ZQBusSerivceManager* ZQBusSerivceManager::initSync(int timeoutMs) {
  ServiceManager& manager = ServiceManager::instance();
  return manager.connect(timeoutMs) != nullptr ? &manager : nullptr;
}

}  // namespace zq
