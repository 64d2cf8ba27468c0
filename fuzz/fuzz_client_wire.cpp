// What a client makes of what it receives: from the bus's broker, from strangers on the bus, and
// from a service on a direct line.
#include <sanitizer/allocator_interface.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "fuzz/fake_broker.h"
#include "fuzz/input.h"
#include "fuzz/wire_input.h"
#include "zqbus/zqbus.h"

namespace zq::fuzz {
namespace {

using wire::Message;
using Reply = std::shared_ptr<ZQBusMessage>;
using Way = std::shared_ptr<ZQBusProxyInterface>;

// Only a call that nothing ends takes as long.
constexpr int kPatienceMs = 60'000;
constexpr int kMostMessages = 4;
// What a message keeps in memory: a multiple of its size on the wire, and what connections and
// threads hold besides.
constexpr std::size_t kMultiple = 12;
constexpr std::size_t kBesides = std::size_t{1} << 20;

Message reply(const Message& call) {
  return Message::replyTo(call);
}
Message error(const Message& call) {
  return Message::replyTo(call, wire::Type::Error);
}
Message event(const Message&) {
  return Message::signal(kServicePath, kServiceName, "perixevent");
}
Message events(const Message&) {
  return Message::signal(kServicePath, "org.zqbus.Direct", "Events");
}
Message broadcast(const Message&) {
  return Message::signal("/org/zqbus/Broadcast", "org.zqbus.Broadcast", "mountedEvent");
}
Message ownerChange(const Message&) {
  return Message::signal("/org/freedesktop/DBus", kBrokerName, "NameOwnerChanged");
}
Message ping(const Message&) {
  return Message::call("/", "org.freedesktop.DBus.Peer", "Ping");
}
constexpr std::array kMessages = {reply, error, event, events, broadcast, ownerChange, ping};
constexpr std::array kSenders = {kServiceOwner, kStrangerName, kBrokerName, ""};

/// The client, whose calls the broker's threads answer.
class Client {
 public:
  void play(FuzzedDataProvider& input);

 private:
  void receive(const std::shared_ptr<Connection>& from, const Message* message);
  void openLine(const std::shared_ptr<Connection>& bus, const Message& open);
  void sendOdd(Connection& to, const Message& call);
  Way& way(bool direct);
  Reply call(ZQBusProxyInterface& service, const char* method);
  Reply callAsync(ZQBusProxyInterface& service, const char* method);
  ZQBusEventCallback* keeping();

  FakeBroker broker_{[this](const auto& from, const auto* message) { receive(from, message); }};
  ZQBusSerivceManager* manager_ = nullptr;
  std::array<Way, 2> ways_;
  std::atomic<std::size_t> sent_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<uint8_t> script_;  // the rest of the input, for the broker's thread
  std::vector<Reply> kept_;      // events
  int outcomes_ = 0;
};

// --- The broker's threads ------------------------------------------------------------------------

void Client::receive(const std::shared_ptr<Connection>& from, const Message* message) {
  if (message == nullptr || message->type != wire::Type::Call) return;
  if (message->member == "Open") return openLine(from, *message);
  if (message->member == "odd") sendOdd(*from, *message);
  from->answerWell(*message);
}

void Client::openLine(const std::shared_ptr<Connection>& bus, const Message& open) {
  wire::Peer handover(bus->peer().takeDescriptor());
  auto [ours, theirs] = socketPair();
  handover.send(std::string_view("\0", 1), std::array{theirs.get()});
  broker_.serveLine(std::move(ours));
  Message answer = withNumber(Message::replyTo(open), ::getpid());
  answer.sender = kServiceOwner;
  bus->send(answer);
}

void Client::sendOdd(Connection& to, const Message& call) {
  std::vector<uint8_t> script;
  {
    const std::lock_guard lock(mutex_);
    script = script_;
  }
  FuzzedDataProvider input(script.data(), script.size());
  for (int left = input.ConsumeIntegralInRange(1, kMostMessages); left > 0; --left) {
    Message message = input.PickValueInArray(kMessages)(call);
    if (to.onBus()) message.sender = input.PickValueInArray(kSenders);
    // A broker counts the descriptors that it passes on; only a line's other end may lie.
    const Sending sending = anySending(input, std::move(message), !to.onBus());
    sent_ += sending.bytes.size();
    to.send(sending.bytes, sending.descriptors);
    if (!sending.inStep) return to.close();
  }
}

// --- The client ----------------------------------------------------------------------------------

ZQBusEventCallback* Client::keeping() {
  return new ZQBusEventCallback([this](const Reply& event) {
    const std::lock_guard lock(mutex_);
    kept_.push_back(event);
  });
}

Way& Client::way(bool direct) {
  if (manager_ == nullptr) {
    manager_ = ZQBusSerivceManager::initSync(kPatienceMs);
    require(manager_ != nullptr);
    for (const auto flags : {ZQBusSecurityFlags::None, ZQBusSecurityFlags::TrustedPeer}) {
      require(manager_->addEventListener("mountedEvent", keeping(), flags));
    }
  }
  Way& way = ways_[direct ? 1 : 0];
  if (way != nullptr) return way;
  ::setenv("ZQBUS_DIRECT", direct ? "1" : "0", 1);
  // A call may find the bus lost before its reader does, which is what connects anew.
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (way == nullptr && std::chrono::steady_clock::now() < end) {
    if (!manager_->isServiceRegistered("perix")) continue;
    way = manager_->getServiceProxyInterface("perix", ZQBusSecurityFlags::TrustedPeer, 1);
  }
  require(way != nullptr);
  require(way->addEventListener("perixevent", keeping(), ZQBusSecurityFlags::TrustedPeer));
  return way;
}

Reply Client::call(ZQBusProxyInterface& service, const char* method) {
  return service.callWithReplyBlocking(service.makeMethodCallMessage(method), kPatienceMs);
}

Reply Client::callAsync(ZQBusProxyInterface& service, const char* method) {
  Reply outcome;
  const auto onReply = [&](const Reply& reply) {
    const std::lock_guard lock(mutex_);
    ++outcomes_;
    outcome = reply;
    changed_.notify_all();
  };
  service.callWithReply(service.makeMethodCallMessage(method), onReply, kPatienceMs);
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return outcomes_ > 0; });
  return outcome;
}

bool isGood(const Reply& reply) {
  return reply->type() == 2 && reply->readInt32(0) == kGoodAnswer;
}

/// An odd call has one outcome, and then the service can be called: at once, or by a new interface
/// when the old one says that it is gone.
void Client::play(FuzzedDataProvider& input) {
  const bool direct = input.ConsumeBool();
  const bool asynchronous = input.ConsumeBool();
  ZQBusProxyInterface& service = *way(direct);
  {
    const std::lock_guard lock(mutex_);
    script_ = input.ConsumeRemainingBytes<uint8_t>();
    outcomes_ = 0;
  }
  const std::size_t before = __sanitizer_get_current_allocated_bytes();
  sent_ = 0;
  const Reply odd = asynchronous ? callAsync(service, "odd") : call(service, "odd");
  require(odd != nullptr && odd->failure() != ZQBusFailure::TimedOut);
  require(__sanitizer_get_current_allocated_bytes() < before + kMultiple * sent_ + kBesides);

  const Reply next = call(service, "good");
  if (!isGood(next)) {
    require(next->failure() == ZQBusFailure::PeerGone || next->failure() == ZQBusFailure::BusGone);
    ways_[direct ? 1 : 0].reset();
    require(isGood(call(*way(direct), "good")));
  }
  const std::lock_guard lock(mutex_);
  require(outcomes_ == (asynchronous ? 1 : 0));
  kept_.clear();
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  static auto* const client = new Client;  // its threads go on until the process ends
  FuzzedDataProvider input(data, size);
  client->play(input);
  return 0;
}
