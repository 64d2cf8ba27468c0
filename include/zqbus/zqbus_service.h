// ZQBus, the service side: own a name, answer calls, send events.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zqbus/message.h"

namespace zq {

/// One method as introspection shows it.
struct ZQBusMethod {
  struct Argument {
    std::string name;
    std::string signature;  ///< a D-Bus signature: q, i, x, s or ay
  };
  std::string name;
  std::vector<Argument> in;
  std::vector<Argument> out;
  bool secret = false;  ///< traces show its arguments by their sizes alone
};

/// The methods and events that introspection shows. Descriptive only: calls of other methods reach
/// the handler too.
struct ZQBusServiceDescription {
  std::vector<ZQBusMethod> methods;
  std::vector<ZQBusMethod> events;  ///< `in` holds an event's arguments
};

/// One call to be answered. Answer it once, now or later, from any thread; a second answer is
/// ignored. The caller of a call that is dropped without an answer waits for its time-out.
class ZQBusCall {
 public:
  virtual ~ZQBusCall() = default;

  /// The call: its method's name and its arguments.
  virtual const ZQBusMessage& message() const = 0;
  /// The caller's unique name on the bus.
  virtual const std::string& sender() const = 0;
  /// The way that the call came.
  virtual ZQBusWay way() const { return ZQBusWay::Broker; }
  /// Answers with the arguments of `result`; its type and name do not matter. The caller
  /// of a result that is too large for the bus gets an error that says so.
  virtual void reply(const ZQBusMessage& result) = 0;
  /// Answers with an error; the caller reads `text` as string 0 of a reply of type 3.
  virtual void fail(const std::string& text) = 0;
  /// Answers that the service has no such method.
  virtual void failUnknownMethod() = 0;
  /// For a service that plays a faulty service: writes `bytes` in place of an answer, and ends the
  /// connection that the call came on. On the bus that is the connection of the service itself,
  /// which connects again as after any loss. In one process no bytes travel, and the call goes
  /// without an answer.
  virtual void breakConnection(std::string_view /*bytes*/) {}
};

/// A service on the bus, from claim() to its destruction, and on a direct line to each client that
/// opens one: 256 at most, fewer when the process has few descriptors. It serves clients of its own
/// user and of root alone; other clients get the error AccessDenied. Threads of its own read the
/// connections and run the handler, one call after the other; a handler that blocks stops the
/// service's reading. The service cuts the line of a client whose backlog exceeds 64 MiB. While
/// unanswered calls take more than 64 MiB, further calls get the error LimitsExceeded; a call that
/// cannot be read gets an error too. The handler sees neither. All operations may be used from any
/// thread, from the handler too, and do not block.
///
/// When the bus is lost, the service connects again and claims its name, in the background and
/// until it succeeds: at once, and then after pauses of 100 ms to 5 s. It gives up, with a line in
/// the log, when another process owns the name by then. It serves its lines all the while.
class ZQBusService {
 public:
  using Handler = std::function<void(std::shared_ptr<ZQBusCall>)>;

  /// Claims `service` on the bus of ZQBUS_ADDRESS, or on the user's session bus. Null when there
  /// is no bus or the name is owned by another process; `error` then says which, in words.
  static std::unique_ptr<ZQBusService> claim(const std::string& service,
                                             ZQBusServiceDescription description, Handler handler,
                                             std::string& error);

  /// Releases the name and ends the threads. Waits for a running handler, so do not destroy the
  /// service in its own handler, and a second at most for clients to take unsent messages.
  virtual ~ZQBusService() = default;

  /// Sends `event` with the arguments of `content` to every listener: on every direct line, and
  /// through the bus while a client uses the service there or no client has a line.
  virtual void sendEvent(const std::string& event, const ZQBusMessage& content) = 0;
  /// Sends a broadcast that belongs to no service.
  virtual void sendBroadcast(const std::string& event, const ZQBusMessage& content) = 0;
  /// `onLost` is called once, on a thread of the service, when the bus is gone and the last direct
  /// line has ended: clients on a line are served without the bus. A loss does not count when
  /// the bus is still there and no other process owns the name then: the service claims it again.
  /// When the bus and the lines are gone already, `onLost` is called at once, on the caller's
  /// thread.
  virtual void setLostCallback(std::function<void()> onLost) = 0;
};

}  // namespace zq
