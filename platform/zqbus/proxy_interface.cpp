#include "proxy_interface.h"

#include <utility>

#include "failures.h"
#include "platform/util/fork_generation.h"
#include "time_limit.h"

namespace zq {
namespace {

ServiceWay::Duration timeoutOf(int timeoutMs) {
  if (timeoutMs < 0) return kDefaultTimeout;
  return std::chrono::milliseconds(timeoutMs);
}

}  // namespace

ProxyInterface::ProxyInterface(std::unique_ptr<ServiceWay> way)
    : generation_(forkGeneration()), way_(std::move(way)), owner_(way_->owner()) {}

ProxyInterface::~ProxyInterface() {
  if (!isInherited()) return;
  // Left as they are: a thread of the parent's may have held any of their locks.
  for (Listener& listener : listeners_) (void)listener.subscription.release();
  (void)way_.release();
}

bool ProxyInterface::isInherited() const {
  return generation_ != forkGeneration();
}

std::shared_ptr<ZQBusMessage> ProxyInterface::makeMethodCallMessage(const std::string& method) {
  return std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodCall, method);
}

std::shared_ptr<ZQBusMessage> ProxyInterface::callWithReplyBlocking(
    std::shared_ptr<ZQBusMessage> message, int timeoutMs) {
  if (isInherited()) return std::make_shared<ZQBusMessage>(inherited());
  return way_->call(*message, timeoutOf(timeoutMs));
}

void ProxyInterface::callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                                   int timeoutMs) {
  if (!isInherited()) return way_->callAsync(*message, std::move(onReply), timeoutOf(timeoutMs));
  if (onReply) onReply(std::make_shared<ZQBusMessage>(inherited()));
}

bool ProxyInterface::addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                      ZQBusSecurityFlags) {
  if (callback == nullptr) return false;
  const std::shared_ptr<ZQBusEventCallback> owned(callback);
  if (isInherited()) return false;
  auto subscription = way_->subscribe(
      event, [owned](std::shared_ptr<ZQBusMessage> message) { (*owned)(std::move(message)); },
      withinTimeLimit(ServiceWay::Clock::now() + kDefaultTimeout));
  if (subscription == nullptr) return false;
  const MutexLock lock(listenersMutex_);
  listeners_.push_back({event, callback, std::move(subscription)});
  return true;
}

void ProxyInterface::removeEventListener(const std::string& event, ZQBusEventCallback* callback) {
  if (isInherited()) return;
  const MutexLock lock(listenersMutex_);
  std::erase_if(listeners_, [&](const Listener& listener) {
    return listener.event == event && listener.callback == callback;
  });
}

void ProxyInterface::setDeathCallback(std::function<void()> onDeath) {
  if (!isInherited()) way_->setDeathCallback(std::move(onDeath));
}

}  // namespace zq
