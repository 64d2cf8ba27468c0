#include "bus_call.h"

#include <cstdio>

#include "no_throw.h"
#include "perix/service_values.h"

namespace zq {

PerixCall::PerixCall(PerixProxy& proxy, const char* method, Order order, LogSite site)
    : proxy_(proxy),
      method_(method),
      order_(order),
      site_(site),
      lock_(proxy.callMutex, std::defer_lock) {
  step([&] { proxy_.reconnect(); });
  if (!failed_) lastFailure().clear();
  service_ = proxy_.serviceProxy.get();
  // Without a service there is nothing to wait for; other threads may be trying to connect.
  const bool serialised = order_ == Order::Usual || order_ == Order::IdBeforeMessage;
  if (service_ != nullptr && serialised) lock();
}

/// Locks the call mutex. The service is the connected service at that time.
void PerixCall::lock() {
  const auto before = Clock::now();
  lock_.lock();
  waiting_ += Clock::now() - before;
  service_ = proxy_.serviceProxy.get();
}

/// Runs a step of the call, unless an earlier one failed.
template <typename Step>
void PerixCall::step(Step step) {
  if (failed_) return;
  try {
    step();
  } catch (...) {
    fail(PerixFailure::NoMemory, currentException());
  }
}

/// Makes the message to append to, and locks first where the order says so.
bool PerixCall::begin() {
  if (message_ != nullptr || failed_ || service_ == nullptr) return message_ != nullptr;
  if (order_ == Order::IdBeforeLock && !lock_.owns_lock()) lock();
  if (service_ != nullptr) step([&] { message_ = service_->makeMethodCallMessage(method_); });
  return message_ != nullptr;
}

bool PerixCall::alive() {
  if (begin()) return true;
  if (failed_) return false;
  noteNoService(method_);
  PERIX_ERROR_AT(site_, "%s", unavailable_);
  finish();
  return false;
}

void PerixCall::fail(PerixFailure failure, const char* words) {
  failed_ = true;
  message_ = nullptr;
  lastFailure().set(failure, method_, words);
  PERIX_ERROR_AT(site_, "%s", words);
  finish();
}

/// Completes the report on the outcome.
void PerixCall::finish() {
  LastFailure& last = lastFailure();
  if (last.failure == PerixFailure::None && lookUpFailure_) last = *lookUpFailure_;
  last.setTimes(waiting_, lookUps_, Clock::now() - start_);
  last.explainTimeOut();
}

// --- Arguments -----------------------------------------------------------------------------------

int32_t PerixCall::desktopId(const std::string& vmId) {
  if (desktop_.empty()) desktop_ = vmId;
  const bool idFirst = order_ == Order::IdBeforeMessage || order_ == Order::IdBeforeLock;
  if (failed_ || (idFirst ? service_ == nullptr : !begin())) return 0;
  unsigned int id = 0;
  const auto before = Clock::now();
  step([&] { id = proxy_.GetVmIdInt(vmId); });
  lookUps_ += Clock::now() - before;
  if (failed_) return 0;
  LastFailure& last = lastFailure();
  if (last.failure == PerixFailure::NoMemory) {
    fail(PerixFailure::NoMemory, last.text);
  } else if (last.failure != PerixFailure::None) {
    lookUpFailure_ = last;
  }
  if (!lock_.owns_lock()) stayWithTheProcessAsked();
  return static_cast<int32_t>(id);
}

/// An id is sent to the process that gave it and to no other process. Without the lock another
/// process may have become the service during the look-up.
void PerixCall::stayWithTheProcessAsked() {
  const auto asked = service_;
  if (order_ == Order::IdBeforeLock) {
    lock();
  } else {
    service_ = proxy_.serviceProxy.get();
  }
  if (service_ == nullptr) {
    message_ = nullptr;
  } else if (service_->owner() != asked->owner()) {
    fail(PerixFailure::Died, "the service was replaced while a desktop's id was looked up");
  }
}

template <typename Append>
PerixCall& PerixCall::append(Append append) {
  if (begin()) step([&] { append(*message_); });
  return *this;
}

PerixCall& PerixCall::uint16(uint16_t value) {
  return append([=](ZQBusMessage& message) { message.appendUInt16(value); });
}

PerixCall& PerixCall::int32(int32_t value) {
  return append([=](ZQBusMessage& message) { message.appendInt32(value); });
}

PerixCall& PerixCall::int64(int64_t value) {
  return append([=](ZQBusMessage& message) { message.appendInt64(value); });
}

PerixCall& PerixCall::text(std::string_view value) {
  return append([=](ZQBusMessage& message) { message.appendString(std::string(value)); });
}

PerixCall& PerixCall::block(std::string_view value) {
  return block(value.data(), value.size());
}

PerixCall& PerixCall::block(const void* data, std::size_t size) {
  return append(
      [=](ZQBusMessage& message) { message.appendBytes(data, static_cast<uint32_t>(size)); });
}

PerixCall& PerixCall::secret(std::string_view value) {
  return append([=](ZQBusMessage& message) {
    message.appendBytes(value.data(), static_cast<uint32_t>(value.size()));
    message.markSecret();
  });
}

PerixCall& PerixCall::sourceId(unsigned long long id) {
  return about("source id", id).block(&id, sizeof id);
}

PerixCall& PerixCall::about(const char* kind, unsigned long long number) {
  subjectKind_ = kind;
  subject_ = number;
  return *this;
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
  std::shared_ptr<ZQBusMessage> reply;
  step([&] {
    reply = service_->callWithReplyBlocking(message_, timeoutMs_);
    if (replyLabel_ != nullptr) {
      PERIX_DEBUG_AT(site_, "%s: %s", replyLabel_, reply->toDebugString().c_str());
    }
    if (reply->type() != 2) logError(*reply);
  });
  if (failed_) return nullptr;
  finish();
  return reply->type() == 2 ? reply : nullptr;
}

void PerixCall::logError(const ZQBusMessage& reply) {
  std::string text;
  reply.readString(text, 0);
  lastFailure().setFrom(reply, method_, text);
  if (refused_ != nullptr) {
    PERIX_ERROR_AT(site_, "%s%s", refused_, text.c_str());
  } else {
    PERIX_ERROR_AT(site_, "reply type: %d(%s)", reply.type(), text.c_str());
  }
}

int PerixCall::status(int failure) {
  const auto answered = reply();
  return answered != nullptr ? result(*answered) : failure;
}

int PerixCall::number(int failure) {
  const auto answered = reply();
  return answered != nullptr ? integer(*answered, 0) : failure;
}

std::string PerixCall::answer() {
  const auto answered = reply();
  return answered != nullptr ? string(*answered, 0) : std::string();
}

int PerixCall::send() {
  if (!alive()) return -1;
  // The reply is ignored; -1 is the bus's own time-out.
  step([&] {
    service_->callWithReply(
        message_, [](const std::shared_ptr<ZQBusMessage>&) {}, -1);
  });
  if (failed_) return -1;
  finish();
  return 0;
}

int PerixCall::result(const ZQBusMessage& reply) const {
  const int result = integer(reply, 0);
  if (result == 0) return result;
  const char* known = TextOf(static_cast<ServiceResult>(result));
  char subject[40] = "";
  if (subjectKind_ != nullptr) {
    std::snprintf(subject, sizeof subject, ", %s %llu", subjectKind_, subject_);
  }
  orvaneLogPrint(0, kWarningPriority, "PERIX_REFUSED",
                 R"(%s %s(%d): "Refused:" "%s: result %d, %s; desktop '%.*s'%s")", site_.file,
                 site_.function, site_.line, method_, result,
                 known != nullptr ? known : "which has no text", static_cast<int>(desktop_.size()),
                 desktop_.data(), subject);
  return result;
}

int32_t PerixCall::integer(const ZQBusMessage& reply, std::size_t index) const {
  return has<int32_t>(reply, index) ? reply.readInt32(index) : 0;
}

std::string PerixCall::string(const ZQBusMessage& reply, std::size_t index) const {
  std::string text;
  try {
    if (has<std::string>(reply, index)) reply.readString(text, index);
  } catch (...) {
    return gaveUp(method_, std::string(), site_);
  }
  return text;
}

}  // namespace zq
