// A peer that speaks D-Bus by hand: it sends exactly the bytes it is given.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <span>
#include <vector>

#include "tests/support/wire_bytes.h"
#include "tools/embedded/child_process.h"

namespace zq::wire {

/// One end of a connection. Sending and receiving block until it is done, for 30 s at most; both
/// fail once the other end has closed.
class Peer {
 public:
  explicit Peer(OwnedDescriptor socket);
  /// Connects to a D-Bus address of the form "unix:path=...".
  static Peer dial(const std::string& address);
  /// A client of the bus at that address, past the handshake and Hello.
  static Peer onBus(const std::string& address);

  /// The client's and the server's part of the handshake; they ask for descriptors and agree to
  /// them. False when the other end does not play its own.
  bool greet();
  bool welcome();

  bool skipLine() { return receiveLine().has_value(); }

  bool send(std::string_view bytes, std::span<const int> descriptors = {});
  bool send(const Message& message, std::span<const int> descriptors = {}) {
    return send(bytesOf(message), descriptors);
  }
  /// Numbers a message, sends it and waits for its reply; what comes before it is dropped.
  std::optional<Message> ask(Message call, std::span<const int> descriptors = {});
  /// The next message, nothing at the connection's end.
  std::optional<Message> receive();
  std::optional<Message> receiveUntil(const std::function<bool(const Message&)>& wanted);
  /// The descriptor that came first of those not yet taken; without any, one that comes with the
  /// next bytes, or an empty one.
  OwnedDescriptor takeDescriptor();
  /// The end of what the other end sends: true once it has come, whatever came before it.
  bool hasEnded();
  void shutdown(int how) { ::shutdown(socket_.get(), how); }
  void waitForEver();

  int socket() const { return socket_.get(); }
  /// On a bus, the name that Hello gave.
  const std::string& name() const { return name_; }

 private:
  std::optional<std::string> receiveLine();
  bool fill(std::size_t size);

  OwnedDescriptor socket_;
  std::string name_;
  std::string received_;
  std::vector<OwnedDescriptor> descriptors_;
  uint32_t serial_ = 0;
};

}  // namespace zq::wire
