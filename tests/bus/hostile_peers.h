// The two ends of the bus, played by hand.
#pragma once

#include <future>
#include <memory>
#include <optional>

#include "tests/support/bus_world.h"
#include "tests/support/wire_peer.h"
#include "zqbus/zqbus.h"

namespace zq {

inline constexpr char kPerixPath[] = "/org/zqbus/perix";
inline constexpr char kPerixName[] = "org.zqbus.perix";

inline constexpr int32_t kGoodAnswer = 4711;

/// Two connected stream sockets.
std::pair<OwnedDescriptor, OwnedDescriptor> socketPair();

/// The owner of the service's name, and a client of this process's that has obtained it: on a
/// direct line, or through the bus.
class FakeService {
 public:
  FakeService();

  ZQBusProxyInterface& client() { return *client_; }
  /// What calls of the client's come on and answers go out on.
  wire::Peer& way() { return line_ ? *line_ : bus_; }
  /// The client's unique name.
  const std::string& clientName() const { return clientName_; }
  /// The client's next call.
  std::optional<wire::Message> nextCall();
  /// Answers with kGoodAnswer, as no other reply does.
  void answerWell(const wire::Message& call);

 private:
  void openLine();

  wire::Peer bus_;
  std::optional<wire::Peer> line_;
  std::string clientName_;
  std::shared_ptr<ZQBusProxyInterface> client_;
};

/// A client of the service, on a direct line or through the bus.
class FakeClient {
 public:
  FakeClient();

  wire::Peer& way() { return line_ ? *line_ : bus_; }

 private:
  wire::Peer bus_;
  std::optional<wire::Peer> line_;
};

/// Asks for a direct line. The client's end of it before the handshake; nothing when the service
/// refuses.
std::optional<wire::Peer> openLine(wire::Peer& bus);
wire::Message openCall();
/// A call of the service's, on either way.
wire::Message perixCall(const std::string& method);

}  // namespace zq
