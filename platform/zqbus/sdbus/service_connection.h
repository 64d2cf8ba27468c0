// A connection of a service, to the bus or to one client directly.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "connection_loop.h"
#include "pending_calls.h"
#include "platform/zqbus/event_bundle.h"
#include "zqbus/zqbus_service.h"

namespace zq {

class ReceivedCall;

/// The object that a service offers on each of its connections.
struct ServedObject {
  std::string path;
  std::string interface;
  std::string introspection;
  /// The memory of the calls that the service has received and not yet released.
  std::atomic<std::size_t> callsInHand = 0;
  /// The direct lines that there are.
  std::atomic<std::size_t> lines = 0;
};

/// Reads the connection on a thread of its own and turns method calls into `ZQBusCall`s. Unanswered
/// calls share it, so it may outlive its owner after stop(); it calls nobody then.
class ServiceConnection : public std::enable_shared_from_this<ServiceConnection>,
                          public ConnectionLoop::Listener {
 public:
  /// The service, as its connections see it; it outlives their stop().
  class Owner {
   public:
    virtual ~Owner() = default;
    /// Handles a call, on the connection's thread.
    virtual void handle(const std::shared_ptr<ZQBusCall>& call) = 0;
    /// The connection is lost; on the connection's thread.
    virtual void onLost(ServiceConnection& connection) = 0;
  };

  /// Offers the object on the connection; 0 or a negative error number, -ECANCELED after stop().
  [[nodiscard]] int start();
  /// Closes all these connections within a second, then waits for their running handlers.
  static void stop(const std::vector<std::shared_ptr<ServiceConnection>>& all);

  void sendEvent(const std::string& event, const ZQBusMessage& content);
  void sendBroadcast(const std::string& event, const ZQBusMessage& content);
  /// Sends the batch of held events; to be called before any other message is sent.
  void sendHeldEvents() REQUIRES(loop().mutex());

  ConnectionLoop& loop() const { return *loop_; }
  ServedObject& object() { return *object_; }
  /// The unique name of the client on a direct line, empty on the bus.
  const std::string& peer() const { return peer_; }

  /// To be called after a message of `size` bytes was sent. Cuts the line of a client that does not
  /// read, once its backlog exceeds 64 MiB.
  void afterSend(std::size_t size) REQUIRES(loop().mutex());
  /// Writes bytes that need not be a message, and ends the connection.
  void breakOff(std::string_view bytes) REQUIRES(loop().mutex());

 protected:
  /// Whether the connection is cut once the messages that wait for a slow peer exceed 64 MiB in
  /// all: Bounded on a line, whose peer is one client; Unbounded on the bus, whose broker reads for
  /// all.
  enum class Backlog { Unbounded, Bounded };

  ServiceConnection(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                    std::string peer, Backlog backlog);

  /// Handles a call that a client may have to be trusted for.
  virtual void onCall(sd_bus_message* call) REQUIRES(loop().mutex()) = 0;
  virtual void onSignal(sd_bus_message* /*signal*/) REQUIRES(loop().mutex()) {}
  /// Further work on the connection's thread, after its calls were handled.
  virtual void doMore() EXCLUDES(loop().mutex()) {}
  void onConnectionLost() override REQUIRES(loop().mutex());
  ConnectionLoop::Clock::time_point nextDeadline() const override REQUIRES(loop().mutex()) {
    return calls_.nextDeadline();
  }
  void onDeadline(ConnectionLoop::Clock::time_point now) override REQUIRES(loop().mutex()) {
    calls_.expire(now);
  }

  /// Has a call handled whose sender may make it.
  void receive(sd_bus_message* call) REQUIRES(loop().mutex());
  static void refuse(sd_bus_message* call, const char* error, const std::string& text);
  void cut() REQUIRES(loop().mutex());

  PendingCalls& calls() REQUIRES(loop().mutex()) { return calls_; }

 private:
  static int onMessage(sd_bus_message* message, void* connection, sd_bus_error* error);
  int onPublicCall(sd_bus_message* call);
  void onAllSent() override REQUIRES(loop().mutex()) { sendHeldEvents(); }
  void sendSignal(const char* path, const char* interface, const char* member,
                  const ZQBusMessage& content) REQUIRES(loop().mutex());
  void work() EXCLUDES(loop().mutex());
  std::shared_ptr<ReceivedCall> nextCall() EXCLUDES(loop().mutex());
  void endCalls() EXCLUDES(loop().mutex());
  void finish() EXCLUDES(loop().mutex());
  std::size_t mostUnsent() const;

  Owner& owner_;
  const std::shared_ptr<ServedObject> object_;
  const std::string peer_;
  const Backlog backlog_;
  const std::shared_ptr<ConnectionLoop> loop_;
  SdBusSlot filter_ GUARDED_BY(loop().mutex());
  PendingCalls calls_ GUARDED_BY(loop().mutex());
  std::deque<SdBusMessage> received_ GUARDED_BY(loop().mutex());
  EventBundle heldEvents_ GUARDED_BY(loop().mutex());          // while a line's client is behind
  std::deque<std::size_t> unsent_ GUARDED_BY(loop().mutex());  // the sizes of unsent messages, and
  std::size_t unsentSize_ GUARDED_BY(loop().mutex()) = 0;      // their sum
  bool reportLoss_ GUARDED_BY(loop().mutex()) = false;
};

}  // namespace zq
