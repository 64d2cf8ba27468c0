// What a service makes of what it receives: from clients on the bus, from the bus's broker, and
// from a client on a direct line.
#include <sanitizer/allocator_interface.h>
#include <sys/socket.h>

#include <array>
#include <optional>

#include "fuzz/input.h"
#include "fuzz/service_world.h"
#include "fuzz/wire_input.h"

namespace zq::fuzz {
namespace {

using wire::Message;

constexpr int kMostMessages = 4;
// What a service keeps in memory of the calls that it is just done with: a multiple of their size
// on the wire, and what connections and threads hold besides. The broker's replies count too.
constexpr std::size_t kMultiple = 16;
constexpr std::size_t kBesides = std::size_t{1} << 20;

Message introspect() {
  return Message::call(kServicePath, "org.freedesktop.DBus.Introspectable", "Introspect");
}
Message ping() {
  return Message::call("/", "org.freedesktop.DBus.Peer", "Ping");
}
Message signal() {
  return Message::signal(kServicePath, kServiceName, "perixevent");
}
Message ownerChange() {
  return Message::signal("/org/freedesktop/DBus", kBrokerName, "NameOwnerChanged");
}
/// The broker's answer to some question of the service's.
Message answer(wire::Type type, FuzzedDataProvider& input) {
  Message question;
  question.serial = input.ConsumeIntegralInRange<uint32_t>(1, 2000);
  return Message::replyTo(question, type);
}

Message anyMessage(FuzzedDataProvider& input) {
  constexpr std::array kMessages = {perixCall, introspect, ping, openCall, signal, ownerChange};
  const int kind = input.ConsumeIntegralInRange(0, 7);
  if (kind == 7) return answer(wire::Type::Return, input);
  if (kind == 6) return answer(wire::Type::Error, input);
  return kMessages.at(static_cast<std::size_t>(kind))();
}

/// Sends odd messages to the service with `send`. False when nothing can come behind them.
template <typename Send>
bool sendOdd(FuzzedDataProvider& input, bool onBus, Send send) {
  constexpr std::array kSenders = {kClientName, kStrangerName, kBrokerName, ""};
  for (int left = input.ConsumeIntegralInRange(1, kMostMessages); left > 0; --left) {
    Message message = anyMessage(input);
    if (onBus) message.sender = input.PickValueInArray(kSenders);
    // A broker counts the descriptors that it passes on; only a line's other end may lie.
    const Sending sending = anySending(input, std::move(message), !onBus);
    send(sending);
    if (!sending.inStep) return false;
  }
  return true;
}

/// A client of the service's on the bus, and one on a line.
class Clients {
 public:
  void play(FuzzedDataProvider& input);

 private:
  bool playOnBus(FuzzedDataProvider& input);
  bool playOnLine(FuzzedDataProvider& input);

  FakeBroker broker_{
      [this](const auto& from, const auto* message) { service_.receive(from, message); }};
  ServiceWorld service_{broker_};
  std::optional<wire::Peer> line_;
  std::size_t sent_ = 0;  // through the bus, of one input
};

/// False when the service has left the bus.
bool Clients::playOnBus(FuzzedDataProvider& input) {
  const bool inStep = sendOdd(input, true, [&](const Sending& sending) {
    sent_ += sending.bytes.size();
    service_.bus().send(sending.bytes, sending.descriptors);
  });
  if (!inStep) service_.bus().close();
  return service_.ask(perixCall()).has_value();
}

/// False when the service has ended the line.
bool Clients::playOnLine(FuzzedDataProvider& input) {
  if (!line_) line_ = service_.openLine();
  const bool inStep = sendOdd(input, false, [&](const Sending& sending) {
    line_->send(sending.bytes, sending.descriptors);
  });
  if (!inStep) line_->shutdown(SHUT_WR);
  return service_.answersOn(*line_);
}

/// Whatever was sent, the service answers the next call; on a new line or after a new claim when it
/// has ended what the sender spoiled.
void Clients::play(FuzzedDataProvider& input) {
  if (!service_.isClaimed()) service_.claim();
  sent_ = 0;
  const std::size_t before = __sanitizer_get_current_allocated_bytes();
  if (input.ConsumeBool()) {
    if (playOnLine(input)) return;
    line_ = service_.openLine();
    require(service_.answersOn(*line_));
  } else if (!playOnBus(input)) {
    line_.reset();
    service_.claim();
    require(service_.ask(perixCall()).has_value());
  } else {
    const std::size_t now = __sanitizer_get_current_allocated_bytes();
    require(now < before + kMultiple * sent_ + kBesides);
  }
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  static auto* const clients = new Clients;  // its threads go on until the process ends
  FuzzedDataProvider input(data, size);
  clients->play(input);
  return 0;
}
