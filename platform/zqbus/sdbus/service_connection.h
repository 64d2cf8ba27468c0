// A service's end of one connection, to the bus or to one client directly.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "connection_loop.h"
#include "pending_calls.h"
#include "platform/zqbus/event_bundle.h"
#include "zqbus/zqbus_service.h"

namespace zq {

class ReceivedCall;

/// The object that a service offers at each of its ends.
struct ServedObject {
  std::string path;
  std::string interface;
  std::string introspection;
  /// The memory of the calls that were handed to the service and live on.
  std::atomic<std::size_t> callsInHand = 0;
};

/// Reads the connection on a thread of its own and turns method calls into `ZQBusCall`s. Those that
/// are still to be answered share it, so it may outlive its owner after stop(); it is silent then.
class ServiceConnection : public std::enable_shared_from_this<ServiceConnection>,
                          public ConnectionLoop::Listener {
 public:
  /// What the connection's owner does; it outlives the connection's stop().
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
  /// Ends them all within a second, or when their running handlers have returned.
  static void stop(const std::vector<std::shared_ptr<ServiceConnection>>& all);

  void sendEvent(const std::string& event, const ZQBusMessage& content);
  void sendBroadcast(const std::string& event, const ZQBusMessage& content);
  /// To be called under the lock before anything else is sent: events that wait to go together.
  void sendHeldEvents();

  ConnectionLoop& loop() { return *loop_; }
  ServedObject& object() { return *object_; }
  /// The unique name of the client on a direct line, empty on the bus.
  const std::string& peer() const { return peer_; }

  /// To be called under the lock after a message of that size was sent. A client that stopped
  /// reading has its connection cut when more waits for it than a client can be behind.
  void afterSend(std::size_t size);

 protected:
  /// What may wait to be sent on a connection whose other end reads too slowly.
  enum class Backlog { Unbounded, Bounded };

  ServiceConnection(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                    std::string peer, Backlog backlog);

  // All of these under the lock, but for doMore().

  /// A call that is not for everybody to make. Deals with it.
  virtual void onCall(sd_bus_message* call) = 0;
  virtual void onSignal(sd_bus_message* /*signal*/) {}
  /// What else there is to do on the connection's thread, without the lock.
  virtual void doMore() {}
  void onConnectionLost() override;
  ConnectionLoop::Clock::time_point nextDeadline() const override { return calls_.nextDeadline(); }
  void onDeadline(ConnectionLoop::Clock::time_point now) override { calls_.expire(now); }

  /// Has a call handled whose sender may make it.
  void receive(sd_bus_message* call);
  static void refuse(sd_bus_message* call, const char* error, const std::string& text);
  void cut();

  PendingCalls& calls() { return calls_; }

 private:
  static int onMessage(sd_bus_message* message, void* connection, sd_bus_error* error);
  int onCallOfAnybody(sd_bus_message* call);
  void onAllSent() override { sendHeldEvents(); }
  void sendSignal(const char* path, const char* interface, const char* member,
                  const ZQBusMessage& content);
  void work();
  std::shared_ptr<ReceivedCall> nextCall();
  void finish();

  Owner& owner_;
  const std::shared_ptr<ServedObject> object_;
  const std::string peer_;
  const Backlog backlog_;
  const std::shared_ptr<ConnectionLoop> loop_;
  // Under the loop's lock.
  SdBusSlot filter_;
  PendingCalls calls_;
  std::deque<SdBusMessage> received_;
  EventBundle heldEvents_;          // while a direct line's client is behind
  std::deque<std::size_t> unsent_;  // the sizes of messages that wait to be sent, and
  std::size_t unsentSize_ = 0;      // their sum
  bool lossToTell_ = false;
};

}  // namespace zq
