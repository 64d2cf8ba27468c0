#include "proxy_interface.h"

#include <algorithm>

#include "sd_bus_open.h"

namespace zq {

ProxyInterface::ProxyInterface(std::shared_ptr<Channel> channel, Channel::Target target)
    : channel_(std::move(channel)), target_(std::move(target)) {}

std::shared_ptr<ZQBusMessage> ProxyInterface::makeMethodCallMessage(const std::string& method) {
  return std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodCall, method);
}

std::shared_ptr<ZQBusMessage> ProxyInterface::callWithReplyBlocking(
    std::shared_ptr<ZQBusMessage> message, int timeoutMs) {
  return channel_->call(target_, *message, timeoutMs);
}

void ProxyInterface::callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                                   int timeoutMs) {
  channel_->callAsync(target_, *message, std::move(onReply), timeoutMs);
}

bool ProxyInterface::addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                      ZQBusSecurityFlags) {
  if (callback == nullptr) return false;
  const std::shared_ptr<ZQBusEventCallback> owned(callback);
  auto subscription = channel_->subscribe(
      target_.interface, event, target_.destination,
      [owned](std::shared_ptr<ZQBusMessage> message, const std::string&) {
        (*owned)(std::move(message));
      },
      Channel::Clock::now() + kDefaultTimeout);
  if (subscription == nullptr) return false;
  const std::lock_guard lock(listenersMutex_);
  listeners_.push_back({event, callback, std::move(subscription)});
  return true;
}

void ProxyInterface::removeEventListener(const std::string& event, ZQBusEventCallback* callback) {
  const std::lock_guard lock(listenersMutex_);
  std::erase_if(listeners_, [&](const Listener& listener) {
    return listener.event == event && listener.callback == callback;
  });
}

void ProxyInterface::setDeathCallback(std::function<void()> onDeath) {
  channel_->setDeathCallback(target_.peer, std::move(onDeath));
}

}  // namespace zq
