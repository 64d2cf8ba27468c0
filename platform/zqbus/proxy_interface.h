// The client's way to one running service.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "connection.h"

namespace zq {

class ProxyInterface : public ZQBusProxyInterface {
 public:
  ProxyInterface(std::shared_ptr<Connection> connection, std::shared_ptr<Peer> peer);

  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override;
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
    std::unique_ptr<Connection::Subscription> subscription;
  };

  const std::shared_ptr<Connection> connection_;
  const Connection::Target target_;
  std::mutex listenersMutex_;
  std::vector<Listener> listeners_;
};

}  // namespace zq
