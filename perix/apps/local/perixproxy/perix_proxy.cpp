// The proxy's core: the singleton, its connection to the service and what happens when the service
// dies.
#include "perix/perix_proxy.h"

#include <cstdio>
#include <new>

#include "bus_call.h"
#include "callback_guard.h"
#include "log_line.h"
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
  if (PerixProxy* const proxy = mPerixProxy) {
    proxy->reconnect();
    return proxy;
  }
  static auto* const instanceMutex = new std::mutex;
  const std::lock_guard lock(*instanceMutex);
  if (PerixProxy* const proxy = mPerixProxy) {
    proxy->reconnect();
    return proxy;
  }
  auto* const proxy = new (std::nothrow) PerixProxy;
  if (proxy == nullptr) {
    PERIX_ERROR("\\n");
    return nullptr;
  }
  mPerixProxy = proxy;
  if (proxy->Init() == -1) PERIX_ERROR("get zqbus interface failed");
  PERIX_DEBUG("out, mPerixProxy: %p", static_cast<void*>(proxy));
  return proxy;
}

PerixProxy::PerixProxy() : penPort(std::make_unique<PenPort>()) {}

PerixProxy::~PerixProxy() {
  PERIX_DEBUG("perixproxy destroyed ...");
  PerixProxy::ReleaseService();
}

/// What every use of the proxy begins with; returns at once while connected.
void PerixProxy::reconnect() {
  if (Init() == -1) {
    PERIX_ERROR_AT((LogSite{fileName(__FILE__), "getInstance", __LINE__}),
                   "retry to get zqbus interface failed");
  }
}

// --- The connection ------------------------------------------------------------------------------

std::shared_ptr<ZQBusProxyInterface> PerixProxy::ServiceHandle::get() const {
  const std::lock_guard lock(mutex_);
  return interface_;
}

void PerixProxy::ServiceHandle::set(std::shared_ptr<ZQBusProxyInterface> interface) {
  const std::lock_guard lock(mutex_);
  interface_.swap(interface);  // the old one goes with the parameter, after the lock
  set_ = interface_ != nullptr;
}

int PerixProxy::Init() {
  if (serviceProxy) return 0;
  const std::lock_guard lock(callMutex);
  if (serviceProxy) return 0;
  std::string path;
  GetAppDataPath(path);
  if (!path.empty()) startLog(path);
  PERIX_DEBUG("logPath:%s", path.c_str());
  return connectToService();
}

/// The part of Init that talks to the bus. Under callMutex.
int PerixProxy::connectToService() {
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  if (manager == nullptr) {
    // The one that is known stays known: it is what finds the bus again.
    PERIX_ERROR("ZQBusSerivceManager::initSync failed");
    return -1;
  }
  serviceManager = manager;
  if (!manager->isServiceRegistered(kService)) {
    PERIX_ERROR("isServiceRegistered failed");
    return -1;
  }
  const auto service = manager->getServiceProxyInterface(kService, ZQBusSecurityFlags::TrustedPeer,
                                                         kInterfaceVersion);
  if (service == nullptr) {
    PERIX_ERROR("getServiceProxyInterface failed");
    return -1;
  }
  serviceProxy.set(service);
  eventCallback = new (std::nothrow) ZQBusEventCallback(
      [this](std::shared_ptr<ZQBusMessage> event) { HandleEvent(std::move(event)); });
  PERIX_DEBUG("init callback : %p", static_cast<void*>(eventCallback));
  service->addEventListener(kEvent, eventCallback, ZQBusSecurityFlags::TrustedPeer);
  service->setDeathCallback([this] { onServiceDeath(); });
  return InitBroadcast();
}

int PerixProxy::InitBroadcast() {
  // Each connection adds a subscription that stays; clients rely on hearing a mount once for every
  // connection made since the start.
  auto* const callback = new (std::nothrow) ZQBusEventCallback(&BroadcastCallback);
  if (ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1)) {
    manager->addEventListener(kBroadcast, callback, ZQBusSecurityFlags::TrustedPeer);
  }
  return 0;
}

void PerixProxy::BroadcastCallback(std::shared_ptr<ZQBusMessage> message) {
  if (PerixProxy* const proxy = getInstance()) proxy->HandleEvent(std::move(message));
}

void PerixProxy::ReleaseService() {
  PERIX_DEBUG("");
  const std::lock_guard lock(callMutex);
  const auto service = serviceProxy.get();
  if (service == nullptr || serviceManager == nullptr) return;
  service->removeEventListener(kEvent, eventCallback);
  serviceProxy.set(nullptr);
  eventCallback = nullptr;
}

int PerixProxy::ResetService() {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "resetService").status();
}

// --- The service's death -------------------------------------------------------------------------

void PerixProxy::onServiceDeath() {
  PERIX_ERROR("perix serviced death");
  {
    const std::lock_guard lock(idMapMutex);
    vmIdMap.clear();
  }
  ReleaseService();
  if (nobodyListens()) Sleep(kRecoveryWaitMs);
  int count = 0;
  for (; !isServiceRegistered() && count < kRecoveryChecks; ++count) {
    PERIX_DEBUG("wait for perixservice ....");
    Sleep(kRecoveryWaitMs);
  }
  PERIX_DEBUG("wait for perixservice ...., waiting cnt=%d", count);
  Init();
  tellDesktopsOfDeath(count);
}

bool PerixProxy::nobodyListens() {
  const std::lock_guard lock(callbackMutex);
  return deviceCallbacks.empty() && vmCallbacks.empty();
}

bool PerixProxy::isServiceRegistered() {
  ZQBusSerivceManager* const manager = serviceManager;
  return manager != nullptr && manager->isServiceRegistered(kService);
}

void PerixProxy::tellDesktopsOfDeath(int count) {
  const std::lock_guard lock(callbackMutex);
  const auto desktops = vmCallbacks;
  for (const auto& [vmId, slot] : desktops) {
    PERIX_ERROR("erase vmId: %s", vmId.c_str());
    PERIX_DEBUG("ServiceRegistered:%d count=%d callback=%p userdata=%p", isServiceRegistered(),
                count, reinterpret_cast<void*>(slot.callback), slot.userdata);
    if (slot.callback == nullptr) continue;
    guarded([&tell = slot] { tell.callback(SERVICE_DIED, nullptr, tell.userdata); });
  }
  vmCallbacks.clear();
}

}  // namespace zq
