#include "proxy_interface.h"

#include <algorithm>

#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

ClientConnection::Duration timeoutOf(int timeoutMs) {
  using namespace std::chrono;
  if (timeoutMs < 0) return kDefaultTimeout;
  return std::max(microseconds(1), microseconds(milliseconds(timeoutMs)));
}

}  // namespace

ProxyInterface::ProxyInterface(std::shared_ptr<ClientConnection> connection,
                               ClientConnection::Target target)
    : connection_(std::move(connection)), target_(std::move(target)) {}

std::shared_ptr<ZQBusMessage> ProxyInterface::makeMethodCallMessage(const std::string& method) {
  return std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodCall, method);
}

std::shared_ptr<ZQBusMessage> ProxyInterface::callWithReplyBlocking(
    std::shared_ptr<ZQBusMessage> message, int timeoutMs) {
  return connection_->call(target_, *message, timeoutOf(timeoutMs));
}

void ProxyInterface::callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                                   int timeoutMs) {
  connection_->callAsync(target_, *message, std::move(onReply), timeoutOf(timeoutMs));
}

bool ProxyInterface::addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                      ZQBusSecurityFlags) {
  if (callback == nullptr) return false;
  const std::shared_ptr<ZQBusEventCallback> owned(callback);
  auto subscription = connection_->subscribe(
      {target_.interface, event, target_.destination},
      [owned](std::shared_ptr<ZQBusMessage> message) { (*owned)(std::move(message)); },
      withinTimeLimit(ClientConnection::Clock::now() + kDefaultTimeout));
  if (subscription == nullptr) return false;
  const std::lock_guard lock(listenersMutex_);
  listeners_.push_back({event, callback, std::move(subscription)});
  return true;
}

void ProxyInterface::removeEventListener(const std::string& event, ZQBusEventCallback* callback) {
  if (connection_->isInherited()) return;
  const std::lock_guard lock(listenersMutex_);
  std::erase_if(listeners_, [&](const Listener& listener) {
    return listener.event == event && listener.callback == callback;
  });
}

void ProxyInterface::setDeathCallback(std::function<void()> onDeath) {
  connection_->setDeathCallback(target_.peer, std::move(onDeath));
}

}  // namespace zq
