#include "fuzz/service_world.h"

#include <array>
#include <chrono>
#include <string>

#include "fuzz/input.h"

namespace zq::fuzz {
namespace {

using wire::Message;

constexpr std::chrono::seconds kPatience{60};

void handle(const std::shared_ptr<ZQBusCall>& call) {
  ZQBusMessage reply;
  for (const ZQBusArgument& argument : call->message().arguments()) reply.append(argument);
  call->reply(reply);
}

/// Otherwise the answer tells why there is no line.
void requireReturn(const std::optional<Message>& answer) {
  if (answer && answer->type != wire::Type::Return) {
    std::fprintf(stderr, "%s: %s\n", answer->errorName.c_str(), answer->body.c_str() + 4);
  }
  require(answer && answer->type == wire::Type::Return);
}

}  // namespace

Message openCall() {
  return Message::call(kServicePath, "org.zqbus.Direct", "Open");
}

Message perixCall() {
  return Message::call(kServicePath, kServiceName, "getVmList");
}

void ServiceWorld::claim() {
  service_.reset();
  std::string error;
  service_ = ZQBusService::claim("perix", {}, &handle, error);
  require(service_ != nullptr);
  const std::lock_guard lock(mutex_);
  connection_ = broker_.newest();
  ended_ = false;
}

void ServiceWorld::receive(const std::shared_ptr<Connection>& from, const Message* message) {
  const std::lock_guard lock(mutex_);
  if (from != connection_) return;
  if (message == nullptr) ended_ = true;
  if (message != nullptr && message->replySerial == asked_) answer_ = *message;
  changed_.notify_all();
}

std::optional<Message> ServiceWorld::ask(Message call, std::span<const int> descriptors) {
  call.sender = kClientName;
  call.serial = ++serial_;
  {
    const std::lock_guard lock(mutex_);
    asked_ = call.serial;
    answer_.reset();
  }
  connection_->send(call, descriptors);
  std::unique_lock lock(mutex_);
  require(changed_.wait_for(lock, kPatience, [&] { return ended_ || answer_; }));
  return answer_;
}

wire::Peer ServiceWorld::openLine() {
  auto [ours, theirs] = socketPair();
  Message open = openCall().with("h", wire::Writer().number(4, 0).bytes());
  open.announcedDescriptors = 1;
  const auto answer = ask(open, std::array{theirs.get()});
  theirs.reset();
  requireReturn(answer);
  wire::Peer line(wire::Peer(std::move(ours)).takeDescriptor());
  require(line.greet());
  return line;
}

bool ServiceWorld::answersOn(wire::Peer& line) {
  Message good = perixCall();
  good.serial = ++serial_;
  return line.send(good) && line.receiveUntil([&](const Message& message) {
    return message.replySerial == good.serial;
  });
}

}  // namespace zq::fuzz
