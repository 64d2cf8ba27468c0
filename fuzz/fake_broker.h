// A bus whose broker is played by hand: it vouches for everybody but one stranger, and sends what
// the target likes.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>

#include "tests/support/wire_peer.h"

namespace zq::fuzz {

inline constexpr char kBrokerName[] = "org.freedesktop.DBus";
inline constexpr char kServiceName[] = "org.zqbus.perix";
inline constexpr char kServicePath[] = "/org/zqbus/perix";
inline constexpr char kServiceOwner[] = ":1.1";
inline constexpr char kClientName[] = ":1.2";
inline constexpr char kStrangerName[] = ":1.3";
inline constexpr int32_t kGoodAnswer = 4711;

/// The broker's end of a client's or a service's connection, or the other end of a direct line. Any
/// thread may send.
class Connection {
 public:
  Connection(wire::Peer peer, bool onBus) : peer_(std::move(peer)), onBus_(onBus) {}

  void send(std::string_view bytes, std::span<const int> descriptors = {});
  void send(const wire::Message& message, std::span<const int> descriptors = {});
  /// Answers a call with kGoodAnswer, as the service.
  void answerWell(const wire::Message& call);
  /// Ends the connection once what was sent is read.
  void close();
  bool onBus() const { return onBus_; }
  /// For the thread that reads alone.
  wire::Peer& peer() { return peer_; }

 private:
  wire::Peer peer_;
  const bool onBus_;
  std::mutex sending_;
};

/// Two connected stream sockets.
std::pair<OwnedDescriptor, OwnedDescriptor> socketPair();
/// An integer as the only argument.
wire::Message withNumber(wire::Message message, int32_t number);

/// Listens where ZQBUS_ADDRESS names it from then on. Each connection is read by a thread of its
/// own, for the life of the process. Calls of the broker's own methods are answered.
class FakeBroker {
 public:
  /// Is called with all other messages that come, on the connection's thread, and with none at the
  /// connection's end.
  using Handler =
      std::function<void(const std::shared_ptr<Connection>& from, const wire::Message* message)>;

  explicit FakeBroker(Handler handler);
  FakeBroker(const FakeBroker&) = delete;
  FakeBroker& operator=(const FakeBroker&) = delete;

  /// Serves the other end of a direct line as a service does.
  void serveLine(OwnedDescriptor end);
  /// The connection to the bus that was made last; null before the first.
  std::shared_ptr<Connection> newest();

 private:
  void acceptAll();
  void serve(OwnedDescriptor socket, bool onBus);

  const Handler handler_;
  OwnedDescriptor listening_;
  std::mutex mutex_;
  std::shared_ptr<Connection> newest_;
};

}  // namespace zq::fuzz
