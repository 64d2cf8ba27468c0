// Peers of ours that are played by hand: a service and a client on the real bus.
#pragma once

#include <array>
#include <future>
#include <tuple>

#include "tests/bus/hostile_bodies.h"
#include "tests/support/bus_world.h"
#include "tests/support/wire_peer.h"
#include "zqbus/zqbus.h"

namespace zq {

inline constexpr char kPerixPath[] = "/org/zqbus/perix";
inline constexpr char kPerixName[] = "org.zqbus.perix";

inline constexpr int32_t kGoodAnswer = 4711;

std::pair<OwnedDescriptor, OwnedDescriptor> socketPair();

inline void hand(wire::Peer& handover, int descriptor) {
  handover.send(std::string_view("\0", 1), std::array{descriptor});
}
/// The answer of a service that has opened a line.
inline wire::Message processReply(const wire::Message& open, int32_t process) {
  return wire::Message::replyTo(open).with("i", wire::Writer().number(4, process).bytes());
}

/// Calls of the service. perixCall() numbers them: the bus daemon refuses a second call of the same
/// number while the first waits for its reply.
wire::Message perixMethod(const std::string& method);
wire::Message perixCall(const std::string& method);
wire::Message openCall();
/// A request for a direct line, and the handover pair that goes with it.
struct LineRequest {
  LineRequest() { std::tie(ours, theirs) = socketPair(); }
  wire::Message call = openCall();
  OwnedDescriptor ours;
  OwnedDescriptor theirs;
};
/// The client's end of a new direct line before the handshake; nothing when the service refuses.
std::optional<wire::Peer> openLine(wire::Peer& bus);
/// Makes a connection to the bus a monitor, which receives a copy of every message.
void becomeMonitor(wire::Peer& bus);
/// The signal of the daemon about the owner of a name.
wire::Message nameChange(const std::string& name, const std::string& before,
                         const std::string& after);

/// The owner of the service's name, and a client of this process that has obtained it: on a direct
/// line, or through the bus.
class FakeService {
 public:
  /// Answers a client's request for a line, which came with `handover`.
  using Opening =
      std::function<void(wire::Peer& bus, const wire::Message& open, wire::Peer& handover)>;

  /// Opens a line as a service does, if clients want lines.
  FakeService();
  /// Opens no line, unless `opening` does.
  explicit FakeService(const Opening& opening);

  ZQBusProxyInterface& client() { return *client_; }
  wire::Peer& bus() { return bus_; }
  /// The connection on which the client calls.
  wire::Peer& way() { return line_ ? *line_ : bus_; }
  /// The name on the bus of the client that called last.
  const std::string& clientName() const { return clientName_; }
  std::optional<wire::Message> nextCall();
  /// Gives its name up; its line stays open.
  void releaseName();
  /// Answers with kGoodAnswer, as no other reply does.
  void answerWell(const wire::Message& call) {
    way().send(
        wire::Message::replyTo(call).with("i", wire::Writer().number(4, kGoodAnswer).bytes()));
  }

 private:
  void openLine(const wire::Message& open, wire::Peer& handover);

  wire::Peer bus_;
  std::optional<wire::Peer> line_;
  std::string clientName_;
  std::shared_ptr<ZQBusProxyInterface> client_;
};

using Reply = std::shared_ptr<ZQBusMessage>;

std::future<Reply> callSoon(ZQBusProxyInterface& service, int timeoutMs = -1);
inline bool isGood(const Reply& reply) {
  return reply->type() == 2 && reply->readInt32(0) == kGoodAnswer;
}
/// The fate of an odd reply, after which a good reply was sent.
Fate fateOf(const Reply& reply);
/// Sends a call of that number, as those bytes, and a good call behind it; the fate of the first.
Fate fateOfCall(wire::Peer& client, uint32_t serial, std::string_view call,
                std::span<const int> descriptors = {});

class FakeClient {
 public:
  FakeClient();

  wire::Peer& way() { return line_ ? *line_ : bus_; }

 private:
  wire::Peer bus_;
  std::optional<wire::Peer> line_;
};

}  // namespace zq
