// A bus whose daemon is the test, and whose one connection is the service or a client: the test
// chooses the daemon's answers and other clients' messages, and their order.
#pragma once

#include <unistd.h>

#include "tests/bus/peers.h"

namespace zq {

class FakeBus {
 public:
  /// ZQBUS_ADDRESS leads here for as long as this lives.
  FakeBus();
  ~FakeBus();
  FakeBus(const FakeBus&) = delete;
  FakeBus& operator=(const FakeBus&) = delete;

  bool awaitConnection(std::chrono::milliseconds time) const;
  void accept();
  /// Takes the service's next connection in, up to its claim of the name, which is returned.
  wire::Message welcome();
  /// Has the service claimed and lets it own its name.
  std::unique_ptr<ZQBusService> start(ZQBusService::Handler handler = echo);
  static std::future<std::unique_ptr<ZQBusService>> claim(std::string* error = nullptr,
                                                          ZQBusService::Handler handler = echo);
  static void echo(const std::shared_ptr<ZQBusCall>& call) { call->reply(call->message()); }
  /// Ends the service's connection, and takes it in again so far as to end it again.
  void close() { service_.reset(); }
  void turnAway();
  bool hasEnded() { return service_->hasEnded(); }

  /// Sends a message as if it came from that connection.
  void send(wire::Message message, const std::string& sender,
            std::span<const int> descriptors = {});
  void send(const LineRequest& request, const std::string& client) {
    send(request.call, client, std::array{request.theirs.get()});
  }
  void reply(const wire::Message& call, const std::string& signature, std::string body);
  void replyNumber(const wire::Message& call, uint32_t number) {
    reply(call, "u", wire::Writer().number(4, number).bytes());
  }
  /// The service's next call of the daemon of that name, its next answer to a call of anybody's,
  /// and its next signal.
  wire::Message question(const std::string& method);
  wire::Message call() {
    return receiveUntil([](const auto& m) { return m.type == wire::Type::Call; });
  }
  wire::Message answer() {
    return receiveUntil([](const auto& m) { return m.replySerial != 0; });
  }
  wire::Message signal() {
    return receiveUntil([](const auto& m) { return m.type == wire::Type::Signal; });
  }
  /// Returns when the service has dealt with what was sent to it before, calls that it keeps aside.
  void ping();
  /// Tells that the next connection that is asked about is of this user.
  void admit() { replyNumber(question("GetConnectionUnixUser"), ::geteuid()); }
  void own(const std::string& owner) {
    reply(question("GetNameOwner"), "s", wire::Writer().text(owner).bytes());
  }
  /// Opens a line for a client of this user, which has called before or not. The client's socket.
  wire::Peer openLine(const std::string& client, bool isKnown = false);
  void introduce(const wire::Message& call, const std::string& client) {
    send(call, client);
    admit();
  }

 private:
  wire::Message receiveUntil(const std::function<bool(const wire::Message&)>& wanted);

  std::string directory_;
  std::string addressBefore_;
  OwnedDescriptor listener_;
  std::optional<wire::Peer> service_;
  uint32_t serial_ = 100;
};

/// Keeps the calls to "hang" and answers others with their arguments.
class Keeper {
 public:
  ZQBusService::Handler handler() {
    return [this](const std::shared_ptr<ZQBusCall>& call) {
      lastSender_.set(call->sender());
      if (call->message().name() != "hang") return FakeBus::echo(call);
      kept_.append(call);
    };
  }
  std::string lastSender() { return lastSender_.get(); }
  [[nodiscard]] bool waitFor(std::size_t count) { return kept_.waitForSize(count); }
  void release() {
    for (const auto& call : kept_.take()) call->reply(message(int32_t{1}));
  }

 private:
  Watched<std::string> lastSender_;
  Watched<std::vector<std::shared_ptr<ZQBusCall>>> kept_;
};

}  // namespace zq
