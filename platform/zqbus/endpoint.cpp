#include "endpoint.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "bus_log.h"
#include "codec.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::size_t kMaxUnsent = std::size_t{64} << 20;

// A filter hears the calls, which spares sd-bus's search for the object. The object stands in the
// bus's tree, and has sd-bus answer what is no call of ours.
int leaveToSdBus(sd_bus_message*, void*, sd_bus_error*) {
  return 0;
}

class ReceivedCall : public ZQBusCall {
 public:
  ReceivedCall(std::shared_ptr<Endpoint> endpoint, sd_bus_message* message)
      : endpoint_(std::move(endpoint)),
        call_(ZQBusMessageType::MethodCall, sd_bus_message_get_member(message)),
        sender_(endpoint_->peer()),
        message_(sd_bus_message_ref(message)) {
    if (const char* sender = sd_bus_message_get_sender(message)) sender_ = sender;
    (void)decodeArguments(message, call_);
  }
  ~ReceivedCall() override {
    if (message_ == nullptr) return;
    const Reader::Hold hold(endpoint_->reader());
    message_.reset();
  }

  const ZQBusMessage& message() const override { return call_; }
  const std::string& sender() const override { return sender_; }
  void reply(const ZQBusMessage& result) override;
  void fail(const std::string& text) override { failWith(kErrorName, text); }
  void failUnknownMethod() override {
    failWith(SD_BUS_ERROR_UNKNOWN_METHOD, "no method " + call_.name());
  }

 private:
  void failWith(const char* name, const std::string& text);
  int sendReturn(const ZQBusMessage& result);
  int sendError(const char* name, const std::string& text);
  int sendAnswer(const ZQBusMessage& content, sd_bus_message* answer);

  const std::shared_ptr<Endpoint> endpoint_;
  ZQBusMessage call_;
  std::string sender_;
  SdBusMessage message_;  // null once answered; under the reader's lock
};

void ReceivedCall::reply(const ZQBusMessage& result) {
  const Reader::Hold hold(endpoint_->reader());
  if (message_ == nullptr) return;
  const int sent = sendReturn(result);
  if (sent < 0)
    sendError(kErrorName, std::string("cannot send the answer: ") + std::strerror(-sent));
  message_.reset();
}

void ReceivedCall::failWith(const char* name, const std::string& text) {
  const Reader::Hold hold(endpoint_->reader());
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
  endpoint_->sendHeldEvents();
  int result = encodeArguments(content, answer);
  if (result >= 0) result = sd_bus_send(nullptr, answer, nullptr);
  endpoint_->sent(memoryOf(content));
  return result;
}

}  // namespace

Endpoint::Endpoint(Owner& owner, const std::string& service, std::string peer, Backlog backlog)
    : owner_(owner),
      path_(servicePath(service)),
      interface_(serviceName(service)),
      peer_(std::move(peer)),
      backlog_(backlog) {}

int Endpoint::start(SdBus connection, const std::function<int(sd_bus*)>& prepare) {
  sd_bus* const bus = connection.get();
  reader_ = std::make_shared<Reader>(
      std::move(connection), *this, [this] { work(); }, Reader::WhileWorking::Wait);
  sd_bus_slot* slot = nullptr;
  int result = sd_bus_add_filter(bus, &slot, &onMessage, this);
  filter_.reset(slot);
  if (result >= 0) result = sd_bus_add_object(bus, nullptr, path_.c_str(), &leaveToSdBus, nullptr);
  if (result >= 0 && prepare) result = prepare(bus);
  if (result < 0) {
    filter_.reset();
    return result;
  }
  return reader_->start();
}

void Endpoint::stop() {
  {
    const Reader::Hold hold(*reader_);
    if (!reader_->lost()) sendHeldEvents();
  }
  reader_->close();
  reader_->join();
  std::vector<std::shared_ptr<ZQBusCall>> unanswered;
  const Reader::Hold hold(*reader_);
  filter_.reset();
  unanswered.swap(received_);
}

int Endpoint::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
  Endpoint& endpoint = *static_cast<Endpoint*>(userdata);
  const bool isCall = sd_bus_message_is_method_call(message, nullptr, nullptr) > 0;
  if (!isCall || endpoint.path_ != sd_bus_message_get_path(message)) return 0;
  if (const int taken = endpoint.owner_.intercept(endpoint, message); taken != 0) return taken;
  const char* interface = sd_bus_message_get_interface(message);
  if (interface != nullptr && endpoint.interface_ != interface) return 0;
  endpoint.received_.push_back(
      std::make_shared<ReceivedCall>(endpoint.shared_from_this(), message));
  endpoint.reader_->callThread();
  return 1;
}

void Endpoint::onConnectionLost() {
  lost_ = true;
  reader_->callThread();
}

void Endpoint::work() {
  std::vector<std::shared_ptr<ZQBusCall>> calls;
  bool tellLoss = false;
  {
    const Reader::Hold hold(*reader_);
    calls.swap(received_);
    tellLoss = lost_ && !std::exchange(lossTold_, lost_);
  }
  for (const auto& call : calls) owner_.handle(call);
  if (tellLoss) owner_.onLost(*this);
}

void Endpoint::sendEvent(const std::string& event, const ZQBusMessage& content) {
  const Reader::Hold hold(*reader_);
  if (reader_->lost()) return;
  // One message for many events spares most of what an event costs, at both ends; but one that can
  // leave at once does.
  const bool behind = backlog_ == Backlog::Bounded && reader_->hasUnsent();
  if (!behind || !heldEvents_.add(event, content)) {
    sendHeldEvents();
    sendSignal(path_.c_str(), interface_.c_str(), event.c_str(), content);
  }
}

void Endpoint::sendHeldEvents() {
  if (heldEvents_.empty()) return;
  sendSignal(path_.c_str(), kDirectInterface, kDirectEvents, heldEvents_.take());
}

void Endpoint::sendBroadcast(const std::string& event, const ZQBusMessage& content) {
  const Reader::Hold hold(*reader_);
  if (!reader_->lost()) {
    sendSignal(kBroadcastPath, kBroadcastInterface, event.c_str(), content);
  }
}

void Endpoint::sendSignal(const char* path, const char* interface, const char* member,
                          const ZQBusMessage& content) {
  sd_bus_message* signal = nullptr;
  int result = sd_bus_message_new_signal(reader_->bus(), &signal, path, interface, member);
  const SdBusMessage owned(signal);
  if (result >= 0) result = encodeArguments(content, signal);
  if (result >= 0) result = sd_bus_send(reader_->bus(), signal, nullptr);
  if (result < 0) busLog(std::string("cannot send ") + member + ": " + std::strerror(-result));
  sent(memoryOf(content));
}

void Endpoint::sent(std::size_t size) {
  uint64_t waiting = 0;
  sd_bus_get_n_queued_write(reader_->bus(), &waiting);
  unsent_.push_back(size);
  unsentSize_ += size;
  for (; unsent_.size() > waiting; unsent_.pop_front()) unsentSize_ -= unsent_.front();
  if (waiting == 0) return;
  // One message may be as large as it likes; what piles up behind it may not.
  if (backlog_ == Backlog::Bounded && waiting > 1 && unsentSize_ > kMaxUnsent) {
    busLog("cut the direct line to " + peer_ + ": it does not read");
    ::shutdown(sd_bus_get_fd(reader_->bus()), SHUT_RDWR);
  }
  reader_->sent();
}

}  // namespace zq
