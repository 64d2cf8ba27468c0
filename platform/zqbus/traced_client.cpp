#include <atomic>
#include <utility>
#include <vector>

#include "platform/util/mutex.h"
#include "trace.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = ZQBusTraceEntry::Kind;

int nextConnection() {
  static std::atomic<int> last = 0;
  return ++last;
}

void traceCall(ZQBusTraceEntry entry, const ZQBusMessage& call, const ZQBusMessage& reply) {
  entry.duration = Clock::now().time_since_epoch() - entry.monotonic;
  entry.content = call;
  entry.reply = reply;
  trace(std::move(entry));
}

void traceHeard(ZQBusTraceEntry entry, const std::string& event, const ZQBusMessage& content) {
  entry.content = withArgumentsOf(content, ZQBusMessageType::Event, event);
  trace(std::move(entry));
}

/// An interface beneath which another does the work.
class TracedInterface final : public ZQBusProxyInterface {
 public:
  TracedInterface(std::shared_ptr<ZQBusProxyInterface> interface, const std::string& service)
      : interface_(std::move(interface)), service_(service) {
    setDeathCallback({});
  }

  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override {
    return interface_->makeMethodCallMessage(method);
  }
  const std::string& owner() const override { return interface_->owner(); }
  ZQBusWay way() const override { return interface_->way(); }

  std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage> message,
                                                      int timeoutMs) override {
    if (!isTracing()) return interface_->callWithReplyBlocking(std::move(message), timeoutMs);
    auto entry = begin(Kind::Call, true);
    auto reply = interface_->callWithReplyBlocking(message, timeoutMs);
    traceCall(std::move(entry), *message, *reply);
    return reply;
  }

  void callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                     int timeoutMs) override {
    if (!isTracing()) {
      return interface_->callWithReply(std::move(message), std::move(onReply), timeoutMs);
    }
    auto entry = begin(Kind::Call, true);
    entry.isAsynchronous = true;
    interface_->callWithReply(
        message,
        [entry, message, onReply = std::move(onReply)](std::shared_ptr<ZQBusMessage> reply) {
          traceCall(entry, *message, *reply);
          if (onReply) onReply(std::move(reply));
        },
        timeoutMs);
  }

  bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags flags) override;
  void removeEventListener(const std::string& event, ZQBusEventCallback* callback) override;

  /// Traces the death, whether or not anybody else wants to hear of it.
  void setDeathCallback(std::function<void()> onDeath) override {
    interface_->setDeathCallback(
        [entry = begin(Kind::Death, false), told = told_, onDeath = std::move(onDeath)] {
          if (!told->exchange(true)) trace(entry);
          if (onDeath) onDeath();
        });
  }

 private:
  struct Listener {
    std::string event;
    ZQBusEventCallback* callback;
    ZQBusEventCallback* tracing;
  };

  ZQBusTraceEntry begin(Kind kind, bool isSent) const {
    ZQBusTraceEntry entry = beginTraceEntry(kind, service_);
    entry.isSent = isSent;
    entry.connection = connection_;
    entry.way = way();
    entry.peer = owner();
    return entry;
  }

  const std::shared_ptr<ZQBusProxyInterface> interface_;
  const std::string service_;
  const int connection_ = nextConnection();
  const std::shared_ptr<std::atomic<bool>> told_ = std::make_shared<std::atomic<bool>>(false);
  Mutex mutex_;
  std::vector<Listener> listeners_ GUARDED_BY(mutex_);
};

bool TracedInterface::addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                       ZQBusSecurityFlags flags) {
  if (callback == nullptr) return false;
  const std::shared_ptr<ZQBusEventCallback> owned(callback);
  auto* const tracing =
      new ZQBusEventCallback([owned, service = service_, connection = connection_, way = way(),
                              peer = owner()](std::shared_ptr<ZQBusMessage> heard) {
        ZQBusTraceEntry entry = beginTraceEntry(Kind::Event, service);
        entry.connection = connection;
        entry.way = way;
        entry.peer = peer;
        traceHeard(std::move(entry), heard->name(), *heard);
        (*owned)(std::move(heard));
      });
  if (!interface_->addEventListener(event, tracing, flags)) return false;
  const MutexLock lock(mutex_);
  listeners_.push_back({event, callback, tracing});
  return true;
}

void TracedInterface::removeEventListener(const std::string& event, ZQBusEventCallback* callback) {
  std::vector<Listener> removed;
  {
    const MutexLock lock(mutex_);
    std::erase_if(listeners_, [&](const Listener& listener) {
      const bool isIt = listener.event == event && listener.callback == callback;
      if (isIt) removed.push_back(listener);
      return isIt;
    });
  }
  for (const Listener& listener : removed) {
    interface_->removeEventListener(event, listener.tracing);
  }
}

}  // namespace

std::shared_ptr<ZQBusProxyInterface> traced(std::shared_ptr<ZQBusProxyInterface> interface,
                                            const std::string& service) {
  if (interface == nullptr || !isTracing()) return interface;
  traceConnection(service, interface->owner(), interface->way(), {});
  return std::make_shared<TracedInterface>(std::move(interface), service);
}

ZQBusEventCallback* tracedBroadcast(const std::string& event, ZQBusEventCallback* listener) {
  if (listener == nullptr || !isTracing()) return listener;
  const std::shared_ptr<ZQBusEventCallback> owned(listener);
  return new ZQBusEventCallback(
      [owned, event, connection = nextConnection()](std::shared_ptr<ZQBusMessage> heard) {
        ZQBusTraceEntry entry = beginTraceEntry(Kind::Broadcast, {});
        entry.connection = connection;
        entry.way = ZQBusWay::Broker;
        traceHeard(std::move(entry), event, *heard);
        (*owned)(std::move(heard));
      });
}

void traceConnection(const std::string& service, const std::string& owner,
                     std::optional<ZQBusWay> way, const std::string& problem) {
  if (!isTracing()) return;
  ZQBusTraceEntry entry = beginTraceEntry(Kind::Connection, service);
  entry.isSent = true;
  entry.peer = owner;
  entry.way = way;
  entry.text = problem;
  trace(std::move(entry));
}

}  // namespace zq
