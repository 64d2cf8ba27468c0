#include "endpoint.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "bus_log.h"
#include "codec.h"
#include "introspection.h"
#include "received_call.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::size_t kMaxUnsent = std::size_t{64} << 20;
constexpr char kPeerInterface[] = "org.freedesktop.DBus.Peer";

// The object stands in the tree that sd-bus shows. A filter hears the calls of it.
int leaveToSdBus(sd_bus_message*, void*, sd_bus_error*) {
  return 0;
}

}  // namespace

Endpoint::Endpoint(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                   std::string peer, Backlog backlog)
    : owner_(owner),
      object_(std::move(object)),
      peer_(std::move(peer)),
      backlog_(backlog),
      reader_(std::make_shared<Reader>(
          std::move(connection), *this, [this] { work(); }, Reader::WhileWorking::Wait)) {}

int Endpoint::start() {
  const Reader::Hold hold(*reader_);
  if (reader_->lost()) return -ECANCELED;
  sd_bus* const bus = reader_->bus();
  sd_bus_slot* slot = nullptr;
  int result = sd_bus_add_filter(bus, &slot, &onMessage, this);
  filter_.reset(slot);
  if (result >= 0) {
    result = sd_bus_add_object(bus, nullptr, object_->path.c_str(), &leaveToSdBus, nullptr);
  }
  return result >= 0 ? reader_->start() : result;
}

void Endpoint::stop(const std::vector<std::shared_ptr<Endpoint>>& all) {
  std::vector<Reader*> readers;
  for (const auto& endpoint : all) {
    const Reader::Hold hold(*endpoint->reader_);
    if (!endpoint->reader_->lost()) endpoint->sendHeldEvents();
    readers.push_back(endpoint->reader_.get());
  }
  Reader::closeAll(readers);
  for (const auto& endpoint : all) endpoint->finish();
}

void Endpoint::finish() {
  {
    const Reader::Hold hold(*reader_);
    calls_.endIf([](const PendingCall&) { return true; });
  }
  reader_->join();
  const Reader::Hold hold(*reader_);
  filter_.reset();
  received_.clear();
}

// --- Receiving -----------------------------------------------------------------------------------

int Endpoint::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
  Endpoint& endpoint = *static_cast<Endpoint*>(userdata);
  if (endpoint.calls_.take(message)) return 1;
  uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if (type == SD_BUS_MESSAGE_SIGNAL) endpoint.onSignal(message);
  if (type != SD_BUS_MESSAGE_METHOD_CALL) return 1;
  const char* interface = sd_bus_message_get_interface(message);
  const bool ofAnybody =
      interface != nullptr && (std::strcmp(interface, kPeerInterface) == 0 ||
                               std::strcmp(interface, kIntrospectableInterface) == 0);
  if (ofAnybody) return endpoint.onCallOfAnybody(message);
  endpoint.onCall(message);
  return 1;
}

/// Whether the service is there and which methods it has is no secret; sd-bus tells the rest of it.
int Endpoint::onCallOfAnybody(sd_bus_message* call) {
  const bool isOurs =
      object_->path == sd_bus_message_get_path(call) &&
      sd_bus_message_is_method_call(call, kIntrospectableInterface, kIntrospect) > 0;
  return isOurs ? sd_bus_reply_method_return(call, "s", object_->introspection.c_str()) : 0;
}

void Endpoint::receive(sd_bus_message* call) {
  const char* interface = sd_bus_message_get_interface(call);
  if (object_->path != sd_bus_message_get_path(call)) {
    return refuse(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "no such object");
  }
  if (interface != nullptr && object_->interface != interface) {
    return refuse(call, SD_BUS_ERROR_UNKNOWN_INTERFACE, "no such interface");
  }
  received_.emplace_back(sd_bus_message_ref(call));
  reader_->callThread();
}

void Endpoint::refuse(sd_bus_message* call, const char* error, const std::string& text) {
  sd_bus_reply_method_errorf(call, error, "%s", text.c_str());
}

void Endpoint::onConnectionLost() {
  calls_.endIf([](const PendingCall&) { return true; });
  lossToTell_ = true;
  reader_->callThread();
}

std::shared_ptr<ReceivedCall> Endpoint::nextCall() {
  const Reader::Hold hold(*reader_);
  while (!received_.empty()) {
    SdBusMessage message = std::move(received_.front());
    received_.pop_front();
    if (auto call = ReceivedCall::read(shared_from_this(), std::move(message))) return call;
  }
  return nullptr;
}

void Endpoint::work() {
  while (const auto call = nextCall()) {
    owner_.handle(call);
    call->keepForLater();
  }
  doMore();
  bool tellLoss = false;
  {
    const Reader::Hold hold(*reader_);
    tellLoss = std::exchange(lossToTell_, false);
  }
  if (tellLoss) owner_.onLost(*this);
}

// --- Sending -------------------------------------------------------------------------------------

void Endpoint::sendEvent(const std::string& event, const ZQBusMessage& content) {
  const Reader::Hold hold(*reader_);
  if (reader_->lost()) return;
  // One message for many events spares most of what an event costs, at both ends; but one that can
  // leave at once does.
  const bool behind = backlog_ == Backlog::Bounded && reader_->hasUnsent();
  if (!behind || !heldEvents_.add(event, content)) {
    sendHeldEvents();
    sendSignal(object_->path.c_str(), object_->interface.c_str(), event.c_str(), content);
  }
}

void Endpoint::sendHeldEvents() {
  if (heldEvents_.empty()) return;
  sendSignal(object_->path.c_str(), kDirectInterface, kDirectEvents, heldEvents_.take());
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
    cut();
  }
  reader_->sent();
}

void Endpoint::cut() {
  ::shutdown(sd_bus_get_fd(reader_->bus()), SHUT_RDWR);
}

}  // namespace zq
