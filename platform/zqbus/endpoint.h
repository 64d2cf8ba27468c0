// A service's end of one connection, to the bus or to one client directly.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "event_bundle.h"
#include "reader.h"
#include "zqbus/zqbus_service.h"

namespace zq {

/// Reads the connection on a thread of its own and turns method calls into `ZQBusCall`s. Those that
/// are still to be answered share it, so it may outlive its owner after stop(); it is silent then.
class Endpoint : public std::enable_shared_from_this<Endpoint>, public Reader::Listener {
 public:
  /// What the endpoint's owner does; it outlives the endpoint's stop().
  class Owner {
   public:
    virtual ~Owner() = default;
    /// Looks at a call first, on the endpoint's thread and under its lock: a positive result means
    /// that it is dealt with, 0 that it is for the handler.
    virtual int intercept(Endpoint& endpoint, sd_bus_message* call) = 0;
    /// Handles a call, on the endpoint's thread.
    virtual void handle(const std::shared_ptr<ZQBusCall>& call) = 0;
    /// The connection is lost; on the endpoint's thread.
    virtual void onLost(Endpoint& endpoint) = 0;
  };

  /// What may wait to be sent on a connection whose other end reads too slowly.
  enum class Backlog { Unbounded, Bounded };

  /// `peer` is the unique name of the client on a direct line, empty on the bus.
  Endpoint(Owner& owner, const std::string& service, std::string peer, Backlog backlog);

  /// Takes over a connection and offers the service's object on it; 0 or a negative error number.
  /// `prepare` runs between that and the first look at what arrives.
  [[nodiscard]] int start(SdBus connection, const std::function<int(sd_bus*)>& prepare = {});
  void stop();

  void sendEvent(const std::string& event, const ZQBusMessage& content);
  void sendBroadcast(const std::string& event, const ZQBusMessage& content);
  /// To be called under the lock before anything else is sent: events that wait to go together.
  void sendHeldEvents();

  Reader& reader() { return *reader_; }
  const std::string& peer() const { return peer_; }

  /// To be called under the lock after a message of that size was sent. A client that stopped
  /// reading has its connection cut when more waits for it than a client can be behind.
  void sent(std::size_t size);

 private:
  static int onMessage(sd_bus_message* message, void* endpoint, sd_bus_error* error);
  void onConnectionLost() override;
  void onAllSent() override { sendHeldEvents(); }
  void sendSignal(const char* path, const char* interface, const char* member,
                  const ZQBusMessage& content);
  void work();

  Owner& owner_;
  const std::string path_;
  const std::string interface_;
  const std::string peer_;
  const Backlog backlog_;
  std::shared_ptr<Reader> reader_;
  // Under the reader's lock.
  SdBusSlot filter_;
  std::vector<std::shared_ptr<ZQBusCall>> received_;
  EventBundle heldEvents_;          // while a direct line's client is behind
  std::deque<std::size_t> unsent_;  // the sizes of messages that wait to be sent, and
  std::size_t unsentSize_ = 0;      // their sum
  bool lost_ = false;
  bool lossTold_ = false;
};

}  // namespace zq
