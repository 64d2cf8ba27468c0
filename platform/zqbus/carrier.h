// The seam between the rules of the bus and the carrier of its messages.
//
// The rules are written once, above the seam: one manager for each process, the fork rule, the
// reconnecting, the broadcasts that outlive a connection, trust, the order of callbacks. A carrier
// supplies the three classes of this header and makeCarrier(); ZQBusService::claim() is its
// service side. No function of these classes is called in a forked child.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "delivery_queue.h"
#include "zqbus/zqbus.h"

namespace zq {

using EventFunction = std::function<void(std::shared_ptr<ZQBusMessage>)>;

/// Its destructor ends a subscription, before the connection that it was made on is destroyed. It
/// does not wait for a running delivery; no delivery begins afterwards.
class Subscription {
 public:
  virtual ~Subscription() = default;
};

/// The way to the process that owned a service's name when the way was made. Its destructor removes
/// the death callback.
class ServiceWay {
 public:
  using Clock = std::chrono::steady_clock;
  using Duration = std::chrono::microseconds;
  using ReplyFunction = ZQBusProxyInterface::ReplyFunction;

  virtual ~ServiceWay() = default;
  /// The unique name of that process.
  virtual const std::string& owner() const = 0;
  virtual ZQBusWay way() const = 0;
  /// As ZQBusProxyInterface::callWithReplyBlocking.
  virtual std::shared_ptr<ZQBusMessage> call(const ZQBusMessage& request, Duration timeout) = 0;
  /// As ZQBusProxyInterface::callWithReply.
  virtual void callAsync(const ZQBusMessage& request, ReplyFunction onReply, Duration timeout) = 0;
  /// Subscribes to an event of the service; blocks until `deadline` at most. The delivery queue
  /// calls `listener`. Null when the service or the bus is gone.
  virtual std::unique_ptr<Subscription> subscribe(const std::string& event, EventFunction listener,
                                                  Clock::time_point deadline) = 0;
  /// As ZQBusProxyInterface::setDeathCallback.
  virtual void setDeathCallback(std::function<void()> onDeath) = 0;
};

/// A connection to the bus, until it is lost.
class BusConnection {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~BusConnection() = default;
  virtual bool lost() = 0;
  /// The service's name and the bus, for people: "org.zqbus.perix on the bus at unix:path=/x".
  virtual std::string placeOf(const std::string& service) = 0;
  /// The unique name of the process that owns the name of `service`; empty when no process does.
  /// Nothing when the bus does not answer. Blocks for 25 s at most, and within the thread's time
  /// limit, as all questions to the bus do.
  virtual std::optional<std::string> ownerOf(const std::string& service) = 0;
  /// Has the bus start `service` and waits until a process owns its name, 25 s at most. False with
  /// the bus's words in `error`, or without words when the bus does not know how.
  virtual bool startService(const std::string& service, std::string& error) = 0;
  /// Whether the process of that unique name runs as this user or as root. Blocks for 25 s at most.
  virtual bool isTrusted(const std::string& owner) = 0;
  /// The way to `service`, which `owner` owned a moment ago. Blocks for 3 s at most. Never null.
  virtual std::unique_ptr<ServiceWay> wayTo(const std::string& service,
                                            const std::string& owner) = 0;
  /// Subscribes to a broadcast, of trusted senders alone if `trustedOnly`; blocks until `deadline`
  /// at most. The delivery queue calls `listener`. Null when the connection is lost and when the
  /// bus refuses.
  virtual std::unique_ptr<Subscription> subscribe(const std::string& event, bool trustedOnly,
                                                  EventFunction listener,
                                                  Clock::time_point deadline) = 0;
};

/// Makes connections to the bus, one after the other; never destroyed.
class Carrier {
 public:
  virtual ~Carrier() = default;
  /// Connects to the bus, blocking until `deadline` at most. Null, `error` in words, when that
  /// fails. `onLoss` is called when the connection is lost, perhaps under a lock: it must not wait.
  virtual std::shared_ptr<BusConnection> connect(std::chrono::steady_clock::time_point deadline,
                                                 std::function<void()> onLoss,
                                                 std::string& error) = 0;
};

/// The carrier of this process. It runs every callback in `deliveries`, which outlives it.
std::unique_ptr<Carrier> makeCarrier(DeliveryQueue& deliveries);

}  // namespace zq
