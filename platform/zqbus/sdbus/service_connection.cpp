#include "service_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "codec.h"
#include "introspection.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/memory_of.h"
#include "received_call.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::size_t kMaxUnsent = std::size_t{64} << 20;
constexpr std::size_t kMaxUnsentOnAllLines = std::size_t{4} << 30;
constexpr char kPeerInterface[] = "org.freedesktop.DBus.Peer";

// The object is registered so that introspection shows it. The filter receives its calls.
int leaveToSdBus(sd_bus_message*, void*, sd_bus_error*) {
  return 0;
}

}  // namespace

ServiceConnection::ServiceConnection(Owner& owner, std::shared_ptr<ServedObject> object,
                                     SdBus connection, std::string peer, Backlog backlog)
    : owner_(owner),
      object_(std::move(object)),
      peer_(std::move(peer)),
      backlog_(backlog),
      loop_(std::make_shared<ConnectionLoop>(
          std::move(connection), *this, [this] { work(); }, ConnectionLoop::WhileWorking::Wait)) {}

int ServiceConnection::start() {
  const ConnectionLoop::Hold hold(loop());
  if (loop().lost()) return -ECANCELED;
  sd_bus* const bus = loop().bus();
  sd_bus_slot* slot = nullptr;
  int result = sd_bus_add_filter(bus, &slot, &onMessage, this);
  filter_.reset(slot);
  if (result >= 0) {
    result = sd_bus_add_object(bus, nullptr, object_->path.c_str(), &leaveToSdBus, nullptr);
  }
  return result >= 0 ? loop().start() : result;
}

void ServiceConnection::stop(const std::vector<std::shared_ptr<ServiceConnection>>& all) {
  std::vector<ConnectionLoop*> loops;
  for (const auto& connection : all) {
    const ConnectionLoop::Hold hold(connection->loop());
    if (!connection->loop().lost()) connection->sendHeldEvents();
    loops.push_back(&connection->loop());
  }
  ConnectionLoop::closeAll(loops);
  // First of all connections: the thread of one may wait for a call on another.
  for (const auto& connection : all) connection->endCalls();
  for (const auto& connection : all) connection->finish();
}

void ServiceConnection::endCalls() {
  const ConnectionLoop::Hold hold(loop());
  calls_.endIf([](const PendingCall&) { return true; });
}

void ServiceConnection::finish() {
  loop().join();
  const ConnectionLoop::Hold hold(loop());
  filter_.reset();
  received_.clear();
}

// --- Receiving -----------------------------------------------------------------------------------

int ServiceConnection::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
  ServiceConnection& connection = *static_cast<ServiceConnection*>(userdata);
  connection.loop().mutex().assertHeld();  // by the loop, which has sd-bus call this
  if (connection.calls_.take(message)) return 1;
  uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if (type == SD_BUS_MESSAGE_SIGNAL) connection.onSignal(message);
  if (type != SD_BUS_MESSAGE_METHOD_CALL) return 1;
  const char* interface = sd_bus_message_get_interface(message);
  const bool isPublic =
      interface != nullptr && (std::strcmp(interface, kPeerInterface) == 0 ||
                               std::strcmp(interface, kIntrospectableInterface) == 0);
  if (isPublic) return connection.onPublicCall(message);
  connection.onCall(message);
  return 1;
}

/// Every client may ask whether the service is there and which methods it has. sd-bus answers the
/// calls that are not about our object.
int ServiceConnection::onPublicCall(sd_bus_message* call) {
  const bool isOurs =
      object_->path == sd_bus_message_get_path(call) &&
      sd_bus_message_is_method_call(call, kIntrospectableInterface, kIntrospect) > 0;
  return isOurs ? sd_bus_reply_method_return(call, "s", object_->introspection.c_str()) : 0;
}

void ServiceConnection::receive(sd_bus_message* call) {
  const char* interface = sd_bus_message_get_interface(call);
  if (object_->path != sd_bus_message_get_path(call)) {
    return refuse(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "no such object");
  }
  if (interface != nullptr && object_->interface != interface) {
    return refuse(call, SD_BUS_ERROR_UNKNOWN_INTERFACE, "no such interface");
  }
  received_.emplace_back(sd_bus_message_ref(call));
  loop().requestWork();
}

void ServiceConnection::refuse(sd_bus_message* call, const char* error, const std::string& text) {
  sd_bus_reply_method_errorf(call, error, "%s", text.c_str());
}

void ServiceConnection::onConnectionLost() {
  calls_.endIf([](const PendingCall&) { return true; });
  reportLoss_ = true;
  loop().requestWork();
}

std::shared_ptr<ReceivedCall> ServiceConnection::nextCall() {
  const ConnectionLoop::Hold hold(loop());
  while (!received_.empty()) {
    SdBusMessage message = std::move(received_.front());
    received_.pop_front();
    if (auto call = ReceivedCall::read(shared_from_this(), std::move(message))) return call;
  }
  return nullptr;
}

void ServiceConnection::work() {
  while (const auto call = nextCall()) {
    owner_.handle(call);
    call->keepForLater();
  }
  doMore();
  bool tellLoss = false;
  {
    const ConnectionLoop::Hold hold(loop());
    tellLoss = std::exchange(reportLoss_, false);
  }
  if (tellLoss) owner_.onLost(*this);
}

// --- Sending -------------------------------------------------------------------------------------

void ServiceConnection::sendEvent(const std::string& event, const ZQBusMessage& content) {
  const ConnectionLoop::Hold hold(loop());
  if (loop().lost()) return;
  // One message for many events saves most of the cost of an event, for sender and receiver. An
  // event that can leave at once is not held.
  const bool behind = backlog_ == Backlog::Bounded && loop().hasUnsent();
  if (!behind || !heldEvents_.add(event, content)) {
    sendHeldEvents();
    sendSignal(object_->path.c_str(), object_->interface.c_str(), event.c_str(), content);
  }
}

void ServiceConnection::sendHeldEvents() {
  if (heldEvents_.empty()) return;
  sendSignal(object_->path.c_str(), kDirectInterface, kDirectEvents, heldEvents_.take());
}

void ServiceConnection::sendBroadcast(const std::string& event, const ZQBusMessage& content) {
  const ConnectionLoop::Hold hold(loop());
  if (!loop().lost()) {
    sendSignal(kBroadcastPath, kBroadcastInterface, event.c_str(), content);
  }
}

void ServiceConnection::sendSignal(const char* path, const char* interface, const char* member,
                                   const ZQBusMessage& content) {
  sd_bus_message* signal = nullptr;
  int result = sd_bus_message_new_signal(loop().bus(), &signal, path, interface, member);
  const SdBusMessage owned(signal);
  if (result >= 0) result = encodeArguments(content, signal);
  if (result >= 0) result = sd_bus_send(loop().bus(), signal, nullptr);
  if (result < 0) busLog(std::string("cannot send ") + member + ": " + std::strerror(-result));
  afterSend(memoryOf(content));
}

void ServiceConnection::afterSend(std::size_t size) {
  uint64_t waiting = 0;
  sd_bus_get_n_queued_write(loop().bus(), &waiting);
  unsent_.push_back(size);
  unsentSize_ += size;
  for (; unsent_.size() > waiting; unsent_.pop_front()) unsentSize_ -= unsent_.front();
  if (waiting == 0) return;
  // One message may have any size; the backlog behind it may not.
  if (backlog_ == Backlog::Bounded && waiting > 1 && unsentSize_ > mostUnsent()) {
    busLog("cut the direct line to " + peer_ + ": it does not read");
    cut();
  }
  loop().afterSend();
}

void ServiceConnection::breakOff(std::string_view bytes) {
  if (loop().lost()) return;
  ::send(sd_bus_get_fd(loop().bus()), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  cut();
}

/// An equal share for each line, as clients of many lines may stop reading at the same time.
std::size_t ServiceConnection::mostUnsent() const {
  const std::size_t lines = std::max<std::size_t>(object_->lines, 1);
  return std::min(kMaxUnsent, kMaxUnsentOnAllLines / lines);
}

void ServiceConnection::cut() {
  ::shutdown(sd_bus_get_fd(loop().bus()), SHUT_RDWR);
}

}  // namespace zq
