// The client's way to one running service: the rules above what the carrier supplies.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "carrier.h"
#include "platform/util/mutex.h"

namespace zq {

class ProxyInterface : public ZQBusProxyInterface {
 public:
  explicit ProxyInterface(std::unique_ptr<ServiceWay> way);
  ~ProxyInterface() override;

  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override;
  const std::string& owner() const override { return owner_; }
  ZQBusWay way() const override { return way_->way(); }
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
    std::unique_ptr<Subscription> subscription;
  };

  bool isInherited() const;

  const int generation_;
  std::unique_ptr<ServiceWay> way_;
  const std::string owner_;
  Mutex listenersMutex_;
  std::vector<Listener> listeners_ GUARDED_BY(listenersMutex_);
};

}  // namespace zq
