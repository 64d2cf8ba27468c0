// ZQBus, the client side: find a service on the bus, call it, hear its events and its death.
//
// Threads. Every operation may be called from any thread, from inside a callback too. Callbacks
// (events, replies of asynchronous calls) run one at a time, in the order in which their causes
// arrived, on a thread of the library, not always the same one: the delivery thread. A callback
// may block for as long as it likes: replies are still read and calls on other threads go on,
// while deliveries wait in a queue of bounded length. Events that do not fit are dropped, counted
// and logged; replies and deaths always fit. A death callback gets a thread of its own when its
// turn in that order comes, so deliveries go on beside it. An exception that leaves a callback is
// logged and goes no further.
//
// Trust. Only the connection that was asked can answer a call, only the owner of a service's name
// is heard as that service, and only the bus daemon is believed about owners and users. Nothing in
// a message is read before its sender is known. A message that cannot be read ends nothing: a
// reply fails as ZQBusFailure::Unreadable, an event is dropped and logged.
//
// Fork. In a child of the process that connected, every operation fails at once: there is no
// manager, interfaces answer ZQBusFailure::Unusable. A child that was forked before the first
// initSync() uses the bus like any process.
//
// Order. All that one process sends to a service arrives in the order in which it was sent, and
// its events are delivered in the order in which the service sent them.
//
// Ways. The bus knows who is there and introduces client and service to each other. Where the
// service offers it, calls and events then travel on a direct line between the two, unseen by
// others on the bus and at a fraction of the cost; else, and with ZQBUS_DIRECT=0 in the
// environment, all of them go through the bus. The way is chosen once, when the interface is
// obtained.
//
// Environment. ZQBUS_ADDRESS names the bus to use, as a D-Bus address; without it, it is the
// user's session bus.
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
  /// The other side must run as the same user as this process, or as root; when the bus cannot
  /// tell, it counts as a stranger.
  TrustedPeer = 1,
};

/// A listener: what to call with each event.
class ZQBusEventCallback {
 public:
  using Function = std::function<void(std::shared_ptr<ZQBusMessage>)>;

  explicit ZQBusEventCallback(Function function) : function_(std::move(function)) {}
  void operator()(std::shared_ptr<ZQBusMessage> event) const { function_(std::move(event)); }

 private:
  Function function_;
};

/// The way to one running service. It is bound to the process that owned the service's name when
/// it was obtained: once that process is gone, every call fails with ZQBusFailure::PeerGone, and a
/// new interface must be obtained. Releasing the last pointer ends its listeners and its death
/// callback; a callback that is running then still runs to its end.
class ZQBusProxyInterface {
 public:
  using ReplyFunction = std::function<void(std::shared_ptr<ZQBusMessage>)>;

  virtual ~ZQBusProxyInterface() = default;

  /// A new call of `method`, without arguments yet. Never null, sends nothing.
  virtual std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) = 0;

  /// Sends `message` and blocks until its reply is there, at most `timeoutMs` milliseconds (-1:
  /// 25 s). Never null. A reply of type 2 is the method's return. Any other has type 3 and says in
  /// `failure()` and in string 0 what happened: the service's own error, or one of this side
  /// (timed out, service gone, bus gone, too large, unreadable). The service's death ends the call
  /// at once. A reply that comes after its time-out is dropped.
  virtual std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage> message,
                                                              int timeoutMs) = 0;

  /// The unique name on the bus of the process that this interface is bound to: names no other
  /// process for as long as the bus runs.
  virtual const std::string& owner() const = 0;

  /// Sends `message` and returns without waiting. `onReply` (may be empty) is called exactly once,
  /// on the delivery thread, with what callWithReplyBlocking would have returned; in a forked
  /// child, which has no such thread, before this returns.
  virtual void callWithReply(std::shared_ptr<ZQBusMessage> message, ReplyFunction onReply,
                             int timeoutMs) = 0;

  /// Calls `callback` for every `event` of the service's from now on; blocks for a round trip to
  /// the bus when all goes through it, 25 s at most, and else not. Takes ownership of `callback`
  /// and deletes it some time after it was removed. With `TrustedPeer`, and without it
  /// too, only the owner of the service's name is heard. False for a null `callback` (nothing
  /// happens) and when the service or the bus is gone (`callback` is deleted).
  virtual bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                ZQBusSecurityFlags flags) = 0;

  /// Ends what addEventListener began with the same arguments; unknown ones are ignored. Does not
  /// wait: a delivery that is running runs to its end, none begins afterwards.
  virtual void removeEventListener(const std::string& event, ZQBusEventCallback* callback) = 0;

  /// Calls `onDeath` once, on a thread of its own, when the service is gone, or the bus when all
  /// goes through it; at once when it is gone already. Calls that were waiting have failed by then,
  /// and what arrived before the death was delivered. It may block for as long as it likes. A
  /// second callback replaces the first; an empty one ends it, and so does releasing the interface.
  virtual void setDeathCallback(std::function<void()> onDeath) = 0;
};

/// The bus of this process. One per process; it lives until the process ends.
class ZQBusSerivceManager {
 public:
  virtual ~ZQBusSerivceManager() = default;

  /// The process's manager, connected to the bus; connects when it is not. Blocks for at most
  /// `timeoutMs` milliseconds (-1: 25 s) while it connects. Null when there is no bus to connect
  /// to. The caller does not own it.
  static ZQBusSerivceManager* initSync(int timeoutMs);

  /// Whether a process owns the service's name now. Asks the bus, which answers within a round
  /// trip; false after 25 s without an answer and without a bus. After the loss of the bus it
  /// tries to connect anew first.
  virtual bool isServiceRegistered(const std::string& service) = 0;

  /// The way to `service`. Blocks for a few round trips to the bus and one to the service, 3 s for
  /// the latter at most: a service that does not answer is used through the bus. Null when nobody
  /// owns the name, when `flags` ask for a trusted peer and the owner is none, and when the
  /// bus is gone. `version` is the version of the interface that the caller speaks, at least 1;
  /// there is one version so far.
  virtual std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string& service,
                                                                        ZQBusSecurityFlags flags,
                                                                        int version) = 0;

  /// Calls `callback` for every broadcast `event` from now on, whoever sends it; with `TrustedPeer`
  /// only for those of trusted senders. Blocks for a round trip to the bus, 25 s at most. Takes
  /// ownership of `callback` and keeps it for the life of the process; the subscription outlives
  /// the loss of the bus. False for a null `callback`.
  virtual bool addEventListener(const std::string& event, ZQBusEventCallback* callback,
                                ZQBusSecurityFlags flags) = 0;

  /// How many events were dropped so far because the delivery queue was full.
  virtual uint64_t droppedEvents() const = 0;

  /// Blocks until every callback that is running now, a death callback included, has ended;
  /// callbacks that begin later are not waited for. Returns at once inside a callback. So after an
  /// interface was released, what its callbacks use may be destroyed.
  virtual void waitForCallbacks() = 0;
};

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

/// Where the bus library's own messages go (a dropped event, an exception out of a callback, a
/// stranger who owns a name): one line each, without a line end. Nowhere by default. Called on any
/// thread, so `sink` must not call the bus. Set it before the first initSync.
using ZQBusLogSink = void (*)(const char* line);
void setZQBusLogSink(ZQBusLogSink sink);

}  // namespace zq
