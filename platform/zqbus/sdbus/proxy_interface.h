// The client's way to one running service.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client_connection.h"

namespace zq {

class ProxyInterface : public ZQBusProxyInterface {
 public:
  /// `target` is the service behind its peer, as `connection` reaches it.
  ProxyInterface(std::shared_ptr<ClientConnection> connection, ClientConnection::Target target);
  ~ProxyInterface() override { connection_->setDeathCallback(target_.peer, {}); }

  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override;
  const std::string& owner() const override { return target_.peer->owner; }
  std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage> message,
                                                      int timeoutMs) override;
  void callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                     int timeoutMs) override;
  bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags flags) override;
  void removeEventListener(const std::string& event, ZQBusEventCallback* callback) override;
  void setDeathCallback(std::function<void()> onDeath) override;

 private:
  struct Listener {
    std::string event;
    ZQBusEventCallback* callback;
    std::unique_ptr<ClientConnection::Subscription> subscription;
  };

  const std::shared_ptr<ClientConnection> connection_;
  const ClientConnection::Target target_;
  std::mutex listenersMutex_;
  std::vector<Listener> listeners_;
};

}  // namespace zq
