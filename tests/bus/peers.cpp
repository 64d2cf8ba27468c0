#include "tests/bus/peers.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace zq {
namespace {

using wire::Message;
using wire::Peer;
using wire::Writer;

bool isCall(const Message& message) {
  return message.type == wire::Type::Call;
}

}  // namespace

std::pair<OwnedDescriptor, OwnedDescriptor> socketPair() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("no socket pair");
  }
  return {OwnedDescriptor(ends[0]), OwnedDescriptor(ends[1])};
}

Message perixMethod(const std::string& method) {
  return Message::call(kPerixPath, kPerixName, method).to(kPerixName);
}

Message perixCall(const std::string& method) {
  static uint32_t serial = 1000;
  Message call = perixMethod(method);
  call.serial = ++serial;
  return call;
}

Message openCall() {
  Message open = Message::call(kPerixPath, "org.zqbus.Direct", "Open").to(kPerixName);
  open.announcedDescriptors = 1;
  return open.with("h", Writer().number(4, 0).bytes());
}

std::optional<Peer> openLine(Peer& bus) {
  LineRequest request;
  const auto answer = bus.ask(request.call, std::array{request.theirs.get()});
  if (!answer || answer->type != wire::Type::Return) return std::nullopt;
  return Peer(Peer(std::move(request.ours)).takeDescriptor());
}

void becomeMonitor(Peer& bus) {
  const std::string noRules = Writer().array(4, [](Writer&) {}).number(4, 0).bytes();
  bus.ask(Message::call("/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring", "BecomeMonitor")
              .to(wire::kDaemon)
              .with("asu", noRules));
}

Message nameChange(const std::string& name, const std::string& before, const std::string& after) {
  return Message::signal("/org/freedesktop/DBus", wire::kDaemon, "NameOwnerChanged")
      .with("sss", Writer().text(name).text(before).text(after).bytes());
}

FakeService::FakeService()
    : FakeService(
          [this](Peer&, const Message& open, Peer& handover) { openLine(open, handover); }) {}

FakeService::FakeService(const Opening& opening) : bus_(Peer::onBus(testBus().address())) {
  constexpr uint32_t kOrReplace = 1 | 2 | 4;  // and may be replaced itself, and does not queue
  bus_.ask(Message::call("/", wire::kDaemon, "RequestName")
               .to(wire::kDaemon)
               .with("su", Writer().text(kPerixName).number(4, kOrReplace).bytes()));
  auto client = soon([] {
    return ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
        "perix", ZQBusSecurityFlags::TrustedPeer, 1);
  });
  if (usesDirectLines()) {
    const auto open = bus_.receiveUntil(isCall);
    Peer handover(bus_.takeDescriptor());
    opening(bus_, *open, handover);
  }
  client_ = client.get();
  if (client_ == nullptr) throw std::runtime_error("the client found no service");
}

void FakeService::releaseName() {
  bus_.ask(Message::call("/", wire::kDaemon, "ReleaseName")
               .to(wire::kDaemon)
               .with("s", Writer().text(kPerixName).bytes()));
}

void FakeService::openLine(const Message& open, Peer& handover) {
  auto [ours, theirs] = socketPair();
  hand(handover, theirs.get());
  theirs.reset();
  bus_.send(processReply(open, ::getpid()));
  line_.emplace(std::move(ours));
  if (!line_->welcome()) throw std::runtime_error("the client does not greet on its line");
}

std::optional<Message> FakeService::nextCall() {
  auto call = way().receiveUntil(isCall);
  if (call && !call->sender.empty()) clientName_ = call->sender;
  return call;
}

std::future<Reply> callSoon(ZQBusProxyInterface& service, int timeoutMs) {
  return soon([&service, timeoutMs] {
    return service.callWithReplyBlocking(service.makeMethodCallMessage("ask"), timeoutMs);
  });
}

Fate fateOf(const Reply& reply) {
  if (isGood(reply)) return Fate::Dropped;
  if (reply->type() == 2) return Fate::Read;
  if (reply->failure() == ZQBusFailure::Unreadable) return Fate::Unreadable;
  EXPECT_EQ(reply->failure(), ZQBusFailure::PeerGone);
  return Fate::Cut;
}

Fate fateOfCall(Peer& client, uint32_t serial, std::string_view call,
                std::span<const int> descriptors) {
  const Message good = perixCall("good");
  Fate fate = Fate::Dropped;
  if (!client.send(call, descriptors) || !client.send(good)) return Fate::Cut;
  for (auto reply = client.receive(); reply; reply = client.receive()) {
    if (reply->replySerial == good.serial) return fate;
    if (reply->replySerial != serial) continue;
    fate = reply->type == wire::Type::Return ? Fate::Read : Fate::Unreadable;
  }
  return Fate::Cut;
}

FakeClient::FakeClient() : bus_(Peer::onBus(testBus().address())) {
  if (!usesDirectLines()) return;
  line_ = openLine(bus_);
  if (!line_ || !line_->greet()) throw std::runtime_error("the service opens no line");
}

}  // namespace zq
