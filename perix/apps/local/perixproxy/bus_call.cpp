#include "bus_call.h"

namespace zq {
namespace {

thread_local PerixFailureReport lastFailure;

PerixFailure failureOf(const ZQBusMessage& reply) {
  switch (reply.failure()) {
    case ZQBusFailure::None:
      return PerixFailure::None;
    case ZQBusFailure::TimedOut:
      return PerixFailure::TimedOut;
    case ZQBusFailure::TooLarge:
      return PerixFailure::TooLarge;
    case ZQBusFailure::PeerGone:
    case ZQBusFailure::BusGone:
      return PerixFailure::Died;
    case ZQBusFailure::Unusable:
      return PerixFailure::NoService;
    case ZQBusFailure::Unreadable:
      return PerixFailure::Unreadable;
    case ZQBusFailure::Service:
      break;
  }
  return PerixFailure::Refused;
}

}  // namespace

PerixFailureReport PerixLastFailure() {
  return lastFailure;
}

PerixCall::PerixCall(PerixProxy& proxy, const char* method, Locking locking, LogSite site)
    : proxy_(proxy), method_(method), site_(site), lock_(proxy.callMutex, std::defer_lock) {
  proxy_.reconnect();
  if (locking == Locking::Serialised) lock_.lock();
  service_ = proxy_.serviceProxy.get();
  if (service_ != nullptr) message_ = service_->makeMethodCallMessage(method);
}

bool PerixCall::alive() {
  if (message_ != nullptr) return true;
  lastFailure = {PerixFailure::NoService, method_, unavailable_};
  PERIX_ERROR_AT(site_, "%s", unavailable_);
  return false;
}

// --- Arguments -----------------------------------------------------------------------------------

PerixCall& PerixCall::desktop(const std::string& vmId) {
  if (message_ != nullptr) int32(static_cast<int32_t>(proxy_.GetVmIdInt(vmId)));
  return *this;
}

PerixCall& PerixCall::uint16(uint16_t value) {
  if (message_ != nullptr) message_->appendUInt16(value);
  return *this;
}

PerixCall& PerixCall::int32(int32_t value) {
  if (message_ != nullptr) message_->appendInt32(value);
  return *this;
}

PerixCall& PerixCall::int64(int64_t value) {
  if (message_ != nullptr) message_->appendInt64(value);
  return *this;
}

PerixCall& PerixCall::text(const std::string& value) {
  if (message_ != nullptr) message_->appendString(value);
  return *this;
}

PerixCall& PerixCall::block(const std::string& value) {
  return block(value.data(), value.size());
}

PerixCall& PerixCall::block(const void* data, std::size_t size) {
  if (message_ != nullptr) message_->appendBytes(data, static_cast<uint32_t>(size));
  return *this;
}

PerixCall& PerixCall::sourceId(unsigned long long id) {
  return block(&id, sizeof id);
}

PerixCall& PerixCall::within(int milliseconds) {
  timeoutMs_ = milliseconds;
  return *this;
}

PerixCall& PerixCall::logReply(const char* label) {
  replyLabel_ = label;
  return *this;
}

PerixCall& PerixCall::words(const char* unavailable, const char* refused) {
  unavailable_ = unavailable;
  refused_ = refused;
  return *this;
}

// --- Outcomes ------------------------------------------------------------------------------------

std::shared_ptr<ZQBusMessage> PerixCall::reply() {
  if (!alive()) return nullptr;
  auto reply = service_->callWithReplyBlocking(message_, timeoutMs_);
  if (replyLabel_ != nullptr) {
    PERIX_DEBUG_AT(site_, "%s: %s", replyLabel_, reply->toDebugString().c_str());
  }
  lastFailure.failure = failureOf(*reply);
  if (reply->type() == 2) return reply;
  logRefusal(*reply);
  return nullptr;
}

void PerixCall::logRefusal(const ZQBusMessage& reply) {
  lastFailure.method = method_;
  reply.readString(lastFailure.text, 0);
  const char* text = lastFailure.text.c_str();
  if (refused_ != nullptr) {
    PERIX_ERROR_AT(site_, "%s%s", refused_, text);
  } else {
    PERIX_ERROR_AT(site_, "reply type: %d(%s)", reply.type(), text);
  }
}

int PerixCall::status(int failure) {
  const auto answered = reply();
  return answered != nullptr ? answered->readInt32(0) : failure;
}

std::string PerixCall::answer() {
  std::string text;
  if (const auto answered = reply()) answered->readString(text, 0);
  return text;
}

int PerixCall::send() {
  if (!alive()) return -1;
  // Nobody waits for what the service makes of it; -1 is the bus's own time-out.
  service_->callWithReply(
      message_, [](const std::shared_ptr<ZQBusMessage>&) {}, -1);
  lastFailure.failure = PerixFailure::None;
  return 0;
}

}  // namespace zq
