#include "received_call.h"

#include <cstring>
#include <utility>

#include "call_stub.h"
#include "codec.h"
#include "platform/zqbus/memory_of.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

// One call may have any size; the calls behind it may not add to it without limit.
constexpr std::size_t kMaxCallsInHand = std::size_t{64} << 20;
// The memory of a call beside its content.
constexpr std::size_t kCallAllowance = 2048;

}  // namespace

std::shared_ptr<ReceivedCall> ReceivedCall::read(
    const std::shared_ptr<ServiceConnection>& connection, SdBusMessage message) {
  const bool isFull = connection->object().callsInHand > kMaxCallsInHand;
  auto call = std::make_shared<ReceivedCall>(connection, std::move(message));
  call->connection_->loop().mutex().assertHeld();  // by the caller
  if (isFull) {
    call->answerError(SD_BUS_ERROR_LIMITS_EXCEEDED, "too many calls wait for their answers");
    return nullptr;
  }
  if (const int result = call->decode(); result < 0) {
    call->answerError(kErrorName, std::string("cannot read the call: ") + std::strerror(-result));
    return nullptr;
  }
  return call;
}

ReceivedCall::ReceivedCall(std::shared_ptr<ServiceConnection> connection, SdBusMessage message)
    : connection_(std::move(connection)),
      call_(ZQBusMessageType::MethodCall, sd_bus_message_get_member(message.get())),
      sender_(connection_->peer()),
      message_(std::move(message)) {
  const char* sender = sd_bus_message_get_sender(message_.get());
  // On a line the client itself could write any sender.
  if (sender_.empty() && sender != nullptr) sender_ = sender;
}

ReceivedCall::~ReceivedCall() {
  connection_->object().callsInHand -= size_;
  if (message_ == nullptr) return;
  const ConnectionLoop::Hold hold(connection_->loop());
  message_.reset();
}

int ReceivedCall::decode() {
  const int result = decodeArguments(message_.get(), call_);
  size_ = memoryOf(call_) + kCallAllowance;
  connection_->object().callsInHand += size_;
  return result;
}

void ReceivedCall::keepForLater() {
  const ConnectionLoop::Hold hold(connection_->loop());
  if (message_ == nullptr) return;
  if (SdBusMessage stub = stubOf(message_.get())) message_ = std::move(stub);
}

void ReceivedCall::reply(const ZQBusMessage& result) {
  const ConnectionLoop::Hold hold(connection_->loop());
  if (message_ == nullptr) return;
  const int sent = sendReturn(result);
  if (sent < 0)
    sendError(kErrorName, std::string("cannot send the answer: ") + std::strerror(-sent));
  message_.reset();
}

void ReceivedCall::fail(const std::string& text) {
  failWith(kErrorName, text);
}

void ReceivedCall::failUnknownMethod() {
  failWith(SD_BUS_ERROR_UNKNOWN_METHOD, "no method " + call_.name());
}

void ReceivedCall::breakConnection(std::string_view bytes) {
  const ConnectionLoop::Hold hold(connection_->loop());
  if (message_ == nullptr) return;
  connection_->breakOff(bytes);
  message_.reset();
}

void ReceivedCall::failWith(const char* name, const std::string& text) {
  const ConnectionLoop::Hold hold(connection_->loop());
  answerError(name, text);
}

void ReceivedCall::answerError(const char* name, const std::string& text) {
  if (message_ == nullptr) return;
  sendError(name, text);
  message_.reset();
}

int ReceivedCall::sendReturn(const ZQBusMessage& result) {
  sd_bus_message* answer = nullptr;
  const int made = sd_bus_message_new_method_return(message_.get(), &answer);
  const SdBusMessage owned(answer);
  return made >= 0 ? sendAnswer(result, answer) : made;
}

int ReceivedCall::sendError(const char* name, const std::string& text) {
  const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name, nullptr);
  sd_bus_message* answer = nullptr;
  const int made = sd_bus_message_new_method_error(message_.get(), &answer, &error);
  const SdBusMessage owned(answer);
  return made >= 0 ? sendAnswer(ZQBusMessage::failed(ZQBusFailure::Service, text), answer) : made;
}

int ReceivedCall::sendAnswer(const ZQBusMessage& content, sd_bus_message* answer) {
  connection_->sendHeldEvents();
  int result = encodeArguments(content, answer);
  if (result >= 0) result = sd_bus_send(nullptr, answer, nullptr);
  connection_->afterSend(memoryOf(content));
  return result;
}

}  // namespace zq
