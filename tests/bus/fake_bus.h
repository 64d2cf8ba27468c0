// A bus whose daemon is the test, and which has the service or a client as its one connection: the
// test says what the daemon answers and what others send, in an order of its own.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/bus_world.h"
#include "tests/support/wire_peer.h"
#include "zqbus/zqbus_service.h"

namespace zq {

inline constexpr uint32_t kOtherUser = 54321;

class FakeBus {
 public:
  /// ZQBUS_ADDRESS leads here for as long as this lives.
  FakeBus();
  ~FakeBus();
  FakeBus(const FakeBus&) = delete;
  FakeBus& operator=(const FakeBus&) = delete;

  /// Takes the next connection in.
  void accept();
  /// Takes the service's next connection in, up to its claim of the name, which is returned.
  wire::Message welcome();
  /// Has the service claimed and lets it own its name.
  std::unique_ptr<ZQBusService> start(ZQBusService::Handler handler = echo);
  /// Has the service claimed in the background.
  static std::future<std::unique_ptr<ZQBusService>> claim(std::string* error = nullptr,
                                                          ZQBusService::Handler handler = echo);
  /// Answers with the arguments.
  static void echo(const std::shared_ptr<ZQBusCall>& call) { call->reply(call->message()); }
  /// Ends the service's connection, and takes it in again so far as to end it again.
  void close() { service_.reset(); }
  void turnAway();
  /// Waits for the service to end it.
  bool hasEnded() { return service_->hasEnded(); }

  /// Sends a message as if it came from that connection.
  void send(wire::Message message, const std::string& sender,
            std::span<const int> descriptors = {});
  /// The daemon's replies.
  void reply(const wire::Message& call, const std::string& signature, std::string body);
  void replyNumber(const wire::Message& call, uint32_t number);
  void fail(const wire::Message& call);
  /// The service's next call of the daemon of that name, its next answer to a call of anybody's,
  /// and its next signal.
  wire::Message question(const std::string& method);
  wire::Message answer();
  wire::Message signal();
  /// Returns when the service has dealt with what was sent to it before, calls that it keeps aside.
  void ping();
  /// Opens a line for a client of this user, who has called before or not. The client's end.
  wire::Peer openLine(const std::string& client, bool isKnown = false);
  /// Has a client of this user call, which has not called before.
  void introduce(const wire::Message& call, const std::string& client);

 private:
  wire::Message receiveUntil(const std::function<bool(const wire::Message&)>& wanted);

  std::string directory_;
  std::string addressBefore_;
  OwnedDescriptor listener_;
  std::optional<wire::Peer> service_;
  uint32_t serial_ = 100;
};

/// What the daemon and others say of a connection when they are asked for its user, and whether it
/// may be trusted then.
struct Verdict {
  const char* name;
  std::function<void(FakeBus&, const wire::Message& question)> give;
  bool trusted;
};
const std::vector<Verdict>& verdicts();

wire::Message perixMethod(const std::string& method);
/// A request for a direct line, and the two ends of the socket pair that goes with it.
struct LineRequest {
  LineRequest();
  wire::Message call;
  OwnedDescriptor ours;
  OwnedDescriptor theirs;
};

}  // namespace zq
