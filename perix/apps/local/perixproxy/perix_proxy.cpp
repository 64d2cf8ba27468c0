// The proxy's core: the singleton, its connection to the service, and the service's death.
#include "perix/perix_proxy.h"

#include <cstdio>
#include <new>

#include "bus_call.h"
#include "callback_lock.h"
#include "delivery_gate.h"
#include "forked_child.h"
#include "log_line.h"
#include "no_throw.h"
#include "pen_port.h"
#include "platform/log/log.h"
#include "platform/util/util.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr char kService[] = "perix";
constexpr char kEvent[] = "perixevent";
constexpr char kBroadcast[] = "mountedEvent";
constexpr int kInterfaceVersion = 1;
constexpr unsigned int kRecoveryWaitMs = 2000;
constexpr int kRecoveryChecks = 500;
// The longest time for connecting, and for a check whether the service is registered.
constexpr std::chrono::seconds kConnectLimit{10};

// Guards the creation. Its destructor does nothing, so it may be used until the process ends.
constinit std::mutex instanceMutex;

/// Notes why the bus library found no bus or no service.
void noteBusProblem() {
  const ZQBusProblem problem = lastZQBusProblem();
  const bool isBus = problem.kind == ZQBusProblem::Kind::NoBus;
  noteConnecting(isBus ? PerixFailure::NoBus : PerixFailure::NoService, problem.text);
}

void logBusLine(const char* line) {
  orvaneLogPrint(0, logPriority(kErrorLevel), "ZQBUS", "%s", line);
}

void startLog(const std::string& path) {
  std::printf("set perix log path:%s \n", path.c_str());
  feroxLogInit(path.c_str());
  setZQBusLogSink(&logBusLine);
}

}  // namespace

std::atomic<PerixProxy*> PerixProxy::mPerixProxy = nullptr;

// --- The singleton -------------------------------------------------------------------------------

PerixProxy* PerixProxy::getInstance() {
  PerixProxy* const proxy = mPerixProxy;
  if (proxy == nullptr) return createInstance();
  proxy->reconnect();
  return proxy;
}

PerixProxy* PerixProxy::createInstance() {
  static constexpr const char* kOperation = "getInstance";
  noteUse();
  const ProcessLock lock(instanceMutex);
  if (PerixProxy* const proxy = mPerixProxy) {
    proxy->reconnect();
    return proxy;
  }
  PerixProxy* made = nullptr;
  try {
    made = new PerixProxy;
  } catch (const std::exception&) {
    PERIX_ERROR("\\n");
    return nullptr;
  }
  mPerixProxy = made;
  if (made->Init() == -1) PERIX_ERROR("get zqbus interface failed");
  PERIX_DEBUG("out, mPerixProxy: %p", static_cast<void*>(made));
  return made;
}

PerixProxy::PerixProxy()
    : penPort(std::make_unique<PenPort>()), deliveries(std::make_shared<DeliveryGate>()) {
  noteUse();
}

PerixProxy::~PerixProxy() {
  PERIX_DEBUG("perixproxy destroyed ...");
  PerixProxy::ReleaseService();
  PerixProxy::AwaitDeliveries();
}

/// Every use of the proxy begins with this; returns at once while connected.
void PerixProxy::reconnect() {
  static constexpr const char* kOperation = "getInstance";
  if (Init() == -1) PERIX_ERROR("retry to get zqbus interface failed");
}

// --- The connection ------------------------------------------------------------------------------

std::shared_ptr<ZQBusProxyInterface> PerixProxy::ServiceHandle::get() const {
  const ProcessLock lock(mutex_);
  return lock ? interface_ : nullptr;
}

void PerixProxy::ServiceHandle::set(std::shared_ptr<ZQBusProxyInterface> interface) {
  const std::lock_guard lock(mutex_);
  interface_.swap(interface);  // the parameter destroys the old pointer after unlocking
  set_ = interface_ != nullptr;
}

int PerixProxy::Init() {
  if (inForkedChild()) {
    noteNoService("");
    return -1;
  }
  if (serviceProxy) return 0;
  const NoCancellation guard;
  const auto start = std::chrono::steady_clock::now();
  const unsigned int failedBefore = failedAttempts;
  const std::lock_guard lock(callMutex);
  const auto locked = std::chrono::steady_clock::now();
  if (serviceProxy) return 0;
  // After the failed attempt of another thread, for which this thread waited, a second attempt
  // would fail too.
  if (failedAttempts == failedBefore) {
    const ZQBusTimeLimit limit(kConnectLimit);
    if (connectToService()) return InitBroadcast();
    ++failedAttempts;
  }
  noteNoService("");
  lastFailure().setTimes(locked - start, {}, std::chrono::steady_clock::now() - start);
  return -1;
}

/// The part of Init under callMutex, up to the broadcasts.
bool PerixProxy::connectToService() try {
  static constexpr const char* kOperation = "Init";
  std::string path;
  GetAppDataPath(path);
  if (!path.empty()) startLog(path);
  PERIX_DEBUG("logPath:%s", path.c_str());
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  if (manager == nullptr) {
    // serviceManager keeps its value: that manager finds the bus again.
    PERIX_ERROR("ZQBusSerivceManager::initSync failed");
    noteBusProblem();
    return false;
  }
  serviceManager = manager;
  if (!manager->isServiceRegistered(kService) && !manager->startService(kService)) {
    PERIX_ERROR("isServiceRegistered failed");
    noteBusProblem();
    return false;
  }
  const auto service = manager->getServiceProxyInterface(kService, ZQBusSecurityFlags::TrustedPeer,
                                                         kInterfaceVersion);
  if (service == nullptr) {
    PERIX_ERROR("getServiceProxyInterface failed");
    noteBusProblem();
    return false;
  }
  return useService(service);
} catch (...) {
  noteConnecting(PerixFailure::NoMemory, currentException());
  return gaveUp(false, here("Init"));
}

/// Subscribes to the service's events, then makes it the connection. On failure the release of the
/// last pointer to the service undoes the steps so far.
bool PerixProxy::useService(const std::shared_ptr<ZQBusProxyInterface>& service) {
  static constexpr const char* kOperation = "Init";
  ownIds(service->owner());
  const uint64_t number = connection + 1;
  if (!deliveries->open(number)) {
    PERIX_ERROR("the proxy is being released");
    noteConnecting(PerixFailure::NoService, "the proxy is being released");
    return false;
  }
  eventCallback = new (std::nothrow)
      ZQBusEventCallback([this, gate = deliveries, number](std::shared_ptr<ZQBusMessage> event) {
        gate->deliver(number, [&] { HandleEvent(std::move(event)); });
      });
  PERIX_DEBUG("init callback : %p", static_cast<void*>(eventCallback));
  if (!service->addEventListener(kEvent, eventCallback, ZQBusSecurityFlags::TrustedPeer)) {
    PERIX_ERROR("addEventListener failed");
    noteConnecting(PerixFailure::NoService, "the service went away while the proxy connected");
    return false;
  }
  service->setDeathCallback(
      [this, gate = deliveries, number] { gate->deliver(number, [this] { onServiceDeath(); }); });
  connection = number;
  serviceProxy.set(service);
  noteConnecting(PerixFailure::None, "");
  return true;
}

/// From now on, the ids are those of this process; the ids of another process are forgotten.
void PerixProxy::ownIds(const std::string& owner) {
  const std::lock_guard lock(idMapMutex);
  if (idOwner == owner) return;
  idOwner = owner;
  vmIdMap.clear();
}

int PerixProxy::InitBroadcast() try {
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  if (manager == nullptr) return 0;
  // Each connection adds a subscription that stays; clients rely on receiving a mount once for
  // every connection made since the start.
  manager->addEventListener(kBroadcast, new (std::nothrow) ZQBusEventCallback(&BroadcastCallback),
                            ZQBusSecurityFlags::TrustedPeer);
  return 0;
} catch (...) {
  return gaveUp(0);
}

void PerixProxy::BroadcastCallback(std::shared_ptr<ZQBusMessage> message) {
  if (PerixProxy* const proxy = getInstance()) proxy->HandleEvent(std::move(message));
}

void PerixProxy::ReleaseService() {
  PERIX_DEBUG("");
  dropConnection();
}

void PerixProxy::dropConnection() {
  const ProcessLock lock(callMutex);
  if (!lock) return;
  deliveries->close();
  const auto service = serviceProxy.get();
  if (service == nullptr) return;
  service->removeEventListener(kEvent, eventCallback);
  serviceProxy.set(nullptr);
  eventCallback = nullptr;
}

int PerixProxy::ResetService() {
  PerixCall call(*this, "resetService", PerixCall::Order::IdBeforeLock);
  PERIX_DEBUG("enter");
  return call.status();
}

void PerixProxy::AwaitDeliveries() {
  if (inForkedChild()) return;
  DeliveryGate::Wait wait(*deliveries);
  dropConnection();  // a recovery may have connected since it was released
  if (!InsideCallback::now()) wait.untilEmpty();
}

// --- The service's death -------------------------------------------------------------------------

void PerixProxy::onServiceDeath() {
  if (inForkedChild()) return;
  PERIX_ERROR("perix serviced death");
  forgetIds();
  ReleaseService();
  if (nobodyListens()) Sleep(kRecoveryWaitMs);
  int count = 0;
  for (; !deliveries->awaited() && !serviceIsBack(count) && count < kRecoveryChecks; ++count) {
    PERIX_DEBUG("wait for perixservice ....");
    Sleep(kRecoveryWaitMs);
  }
  // A thread waits for this to end, and the proxy may be destroyed soon.
  if (deliveries->awaited()) return;
  PERIX_DEBUG("wait for perixservice ...., waiting cnt=%d", count);
  Init();
  tellDesktopsOfDeath(count);
}

/// A look-up that is in progress does not add its id either.
void PerixProxy::forgetIds() {
  const std::lock_guard lock(idMapMutex);
  idOwner.clear();
  vmIdMap.clear();
}

bool PerixProxy::nobodyListens() {
  const std::lock_guard lock(callbackMutex);
  return deviceCallbacks.empty() && vmCallbacks.empty();
}

bool PerixProxy::isServiceRegistered() try {
  ZQBusSerivceManager* const manager = serviceManager;
  const ZQBusTimeLimit limit(kConnectLimit);
  return manager != nullptr && manager->isServiceRegistered(kService);
} catch (...) {
  return gaveUp(false, here("onServiceDeath"));
}

/// Whether the service has returned. The first check has the bus start it.
bool PerixProxy::serviceIsBack(int check) try {
  if (isServiceRegistered()) return true;
  ZQBusSerivceManager* const manager = serviceManager;
  const ZQBusTimeLimit limit(kConnectLimit);
  return check == 0 && manager != nullptr && manager->startService(kService);
} catch (...) {
  return gaveUp(false, here("onServiceDeath"));
}

/// Calls the callback of every desktop, and removes them all: clients register again.
void PerixProxy::tellDesktopsOfDeath(int count) {
  static constexpr const char* kOperation = "onServiceDeath";
  const bool registered = isServiceRegistered();  // before the lock: it asks the bus
  const CallbackLock lock(callbackMutex);
  const auto desktops = vmCallbacks;
  for (const auto& [vmId, slot] : desktops) {
    PERIX_ERROR("erase vmId: %s", vmId.c_str());
    PERIX_DEBUG("ServiceRegistered:%d count=%d callback=%p userdata=%p", registered, count,
                reinterpret_cast<void*>(slot.callback), slot.userdata);
    if (slot.callback == nullptr) continue;
    guarded([&tell = slot] { tell.callback(SERVICE_DIED, nullptr, tell.userdata); },
            here(kOperation));
  }
  vmCallbacks.clear();
}

}  // namespace zq
