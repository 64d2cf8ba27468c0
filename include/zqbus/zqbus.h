// ZQBus, the client side: find a service on the bus, call it, receive its events and its death.
//
// Threads. Every operation may be called from any thread, from inside a callback too. Callbacks
// (events, replies of asynchronous calls) run one at a time, in the order in which their causes
// arrived, on threads of the library, not always the same: the delivery context. A callback may
// block for as long as it likes: replies are still read and calls on other threads go on, while
// deliveries wait in a queue of bounded length. Events that do not fit are dropped, counted
// and logged; replies and deaths always fit. A death callback gets a thread of its own when its
// turn in that order comes, so deliveries go on beside it. An exception that leaves a callback is
// logged and goes no further.
//
// Trust. Only the connection that was asked can answer a call, only the owner of a service's name
// can send its events, and only the bus daemon can name owners and users. No content of a message
// is read before its sender is checked. A message that cannot be read does not end the connection:
// a reply fails as ZQBusFailure::Unreadable, an event is dropped and logged.
//
// Fork. In a child of the process that connected, every operation fails at once: initSync()
// returns null, interfaces answer ZQBusFailure::Unusable. A child that was forked before the first
// initSync() uses the bus like any process.
//
// Order. All that one process sends to a service arrives in the order in which it was sent, and
// its events are delivered in the order in which the service sent them.
//
// Ways. The bus knows the owners of names and introduces client and service to each other. Where
// the service offers it, calls and events then travel on a direct line between the two, unseen by
// other clients of the bus and at a fraction of the cost. Otherwise, and with ZQBUS_DIRECT=0 in the
// environment, all of them go through the bus. The way is chosen once, when the interface is
// obtained.
//
// Environment. ZQBUS_ADDRESS holds the D-Bus address of the bus to use; without it, the user's
// session bus is used. ZQBUS_DIRECT=0 and ZQBUS_ACTIVATE=0 do without direct lines and without
// services that the bus starts.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "zqbus/message.h"

namespace zq {

enum class ZQBusSecurityFlags : int {
  None = 0,
  /// The peer must run as the same user as this process, or as root; a peer whose user the bus
  /// cannot name is not trusted.
  TrustedPeer = 1,
};

/// A listener: a function to be called with each event.
class ZQBusEventCallback {
 public:
  using Function = std::function<void(std::shared_ptr<ZQBusMessage>)>;

  explicit ZQBusEventCallback(Function function) : function_(std::move(function)) {}
  void operator()(std::shared_ptr<ZQBusMessage> event) const { function_(std::move(event)); }

 private:
  Function function_;
};

/// The interface of one running service. It is bound to the process that owned the service's name
/// when it was obtained: once that process is gone, every call fails with ZQBusFailure::PeerGone,
/// and a new interface must be obtained. Releasing the last pointer removes its listeners and its
/// death callback, and does not wait for a running callback.
class ZQBusProxyInterface {
 public:
  using ReplyFunction = std::function<void(std::shared_ptr<ZQBusMessage>)>;

  virtual ~ZQBusProxyInterface() = default;

  /// A new call of `method`, without arguments yet. Never null, sends nothing.
  virtual std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) = 0;

  /// Sends `message` and blocks until its reply arrives, at most `timeoutMs` milliseconds (-1: 25
  /// s). Never null. A reply of type 2 is the method's return. Any other has type 3, its cause in
  /// `failure()` and in words in string 0: the service's own error, or an error of this side (timed
  /// out, service gone, bus gone, too large, unreadable). The service's death ends the call at
  /// once. A reply that comes after its time-out is dropped.
  virtual std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage> message,
                                                              int timeoutMs) = 0;

  /// The unique name on the bus of the process that this interface is bound to. No other process
  /// gets it for as long as the bus runs.
  virtual const std::string& owner() const = 0;

  /// The way that calls and events of this interface take, for as long as it lives.
  virtual ZQBusWay way() const { return ZQBusWay::Broker; }

  /// Sends `message` and returns without waiting. `onReply` (may be empty) is called exactly once,
  /// in the delivery context, with the reply that callWithReplyBlocking would have returned; in a
  /// forked child, which has no delivery context, before this returns.
  virtual void callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                             int timeoutMs) = 0;

  /// Calls `callback` for every `event` of the service from now on. When events come through the
  /// bus it blocks for a round trip to the bus, 25 s at most; when the service refused a direct
  /// line, also for one to the service, 3 s at most. On a direct line it does not block. Takes
  /// ownership of `callback` and deletes it some time after it was removed. `flags` is ignored:
  /// only the owner of the service's name is heard. False for a null `callback` (without effect)
  /// and when the service or the bus is gone (`callback` is deleted).
  virtual bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                ZQBusSecurityFlags flags) = 0;

  /// Removes the listener that addEventListener added with the same arguments; unknown arguments
  /// are ignored. Does not wait for a running delivery; no delivery begins afterwards.
  virtual void removeEventListener(const std::string& event, ZQBusEventCallback* callback) = 0;

  /// Calls `onDeath` once, on a thread of its own, when the service is gone, or the bus while calls
  /// go through it; at once when it is gone already. Calls that were waiting have failed by then,
  /// and events that arrived before the death were delivered. `onDeath` may block for as long as it
  /// likes. A second callback replaces the first; an empty function removes it, and so does
  /// releasing the interface.
  virtual void setDeathCallback(std::function<void()> onDeath) = 0;
};

/// The bus of this process. One per process; it lives until the process ends.
class ZQBusSerivceManager {
 public:
  virtual ~ZQBusSerivceManager() = default;

  /// The process's manager, connected to the bus; connects first when it is not. Blocks for at most
  /// `timeoutMs` milliseconds (-1: 25 s) while it connects. Null when it cannot connect. The caller
  /// does not own the manager.
  static ZQBusSerivceManager* initSync(int timeoutMs);

  /// Whether a process owns the service's name now. Asks the bus, which takes one round trip; false
  /// after 25 s without an answer, and without a bus. After the loss of the bus it connects again
  /// first.
  virtual bool isServiceRegistered(const std::string& service) = 0;

  /// The interface of `service`. Blocks for a few round trips to the bus and one to the service, 3
  /// s for the latter at most: a service that does not answer is used through the bus. Null when no
  /// process owns the name, when `flags` ask for a trusted peer and the owner is not trusted, and
  /// when the bus is gone. `version` is the version of the interface that the caller speaks, at
  /// least 1; version 1 is the only version so far.
  virtual std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string& service,
                                                                        ZQBusSecurityFlags flags,
                                                                        int version) = 0;

  /// Calls `callback` for every broadcast `event` from now on, of any sender; with `TrustedPeer` of
  /// trusted senders only. Blocks for a round trip to the bus, 25 s at most. Takes
  /// ownership of `callback` and keeps it for the life of the process; the subscription outlives
  /// the loss of the bus. False for a null `callback`.
  virtual bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                ZQBusSecurityFlags flags) = 0;

  /// How many events were dropped so far because the delivery queue was full.
  virtual uint64_t droppedEvents() const = 0;

  /// Blocks until every callback that is running now, a death callback included, has returned; does
  /// not wait for callbacks that begin later. Returns at once inside a callback. So once an
  /// interface was released and this has returned, the objects that its callbacks use may be
  /// destroyed.
  virtual void waitForCallbacks() = 0;

  /// Has the bus start `service` if no process owns its name and the bus knows how, as an
  /// activation file of the service tells it. Blocks until a process owns the name, 25 s at most.
  /// Whether a process owns it then; lastZQBusProblem() tells why not, in the bus's words. Starts
  /// nothing with ZQBUS_ACTIVATE=0 in the environment.
  virtual bool startService(const std::string& /*service*/) { return false; }
};

/// Why the last initSync(), isServiceRegistered(), startService() or getServiceProxyInterface() of
/// this thread found nothing.
struct ZQBusProblem {
  enum class Kind {
    None,        ///< it did not
    NoBus,       ///< the bus cannot be reached, or does not answer
    NoService,   ///< the bus is there, and no process owns the name
    NotTrusted,  ///< a process of another user owns the name
    Forked,      ///< the connection belongs to the process that forked this one
  };
  Kind kind = Kind::None;
  /// A sentence for people, without its full stop, 511 bytes at most: "cannot reach the bus at
  /// unix:path=/x: Connection refused". Changes with the next of these operations on this thread.
  const char* text = "";
};
/// Never blocks, never throws.
ZQBusProblem lastZQBusProblem();

/// While an object of this class lives, the operations above that ask the bus on this thread end
/// within `limit` from its construction, all of them together; their own limits hold beside it. It
/// does not shorten the time-out of a call. Objects nest: the earliest end counts.
class ZQBusTimeLimit {
 public:
  explicit ZQBusTimeLimit(std::chrono::milliseconds limit);
  ~ZQBusTimeLimit();
  ZQBusTimeLimit(const ZQBusTimeLimit&) = delete;
  ZQBusTimeLimit& operator=(const ZQBusTimeLimit&) = delete;

 private:
  std::chrono::steady_clock::time_point outer_;
};

/// The receiver of the bus library's own messages (a dropped event, an exception that left a
/// callback, a name whose owner is not trusted): one line each, without a line end. Nowhere by
/// default. Called on any thread, so `sink` must not call the bus. Set it before the first
/// initSync.
using ZQBusLogSink = void (*)(const char* line);
void setZQBusLogSink(ZQBusLogSink sink);

}  // namespace zq
