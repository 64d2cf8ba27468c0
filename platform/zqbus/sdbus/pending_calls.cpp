#include "pending_calls.h"

#include <bit>

#include "platform/zqbus/bus_log.h"
#include "sd_bus_open.h"

namespace zq {

int PendingCalls::send(sd_bus* bus, sd_bus_message* message, std::shared_ptr<PendingCall> call,
                       Clock::time_point deadline) {
  const char* destination = sd_bus_message_get_destination(message);
  if (destination != nullptr) call->asked_ = destination;
  const int sent = sd_bus_send(bus, message, &call->cookie_);
  if (sent < 0) return sent;
  call->deadline_ = deadline;
  if (deadline != Clock::time_point::max()) deadlines_.emplace(deadline, call->cookie_);
  calls_.emplace(call->cookie_, std::move(call));
  return 0;
}

bool PendingCalls::mayAnswer(sd_bus_message* reply, const PendingCall& call) {
  if (call.asked_.empty()) return true;
  const char* sender = sd_bus_message_get_sender(reply);
  if (sender != nullptr && call.asked_ == sender) return true;
  return isFromBus(reply) && sd_bus_message_is_method_error(reply, nullptr) > 0;
}

bool PendingCalls::take(sd_bus_message* message) {
  uint8_t type = 0;
  uint64_t cookie = 0;
  if (sd_bus_message_get_type(message, &type) < 0 ||
      (type != SD_BUS_MESSAGE_METHOD_RETURN && type != SD_BUS_MESSAGE_METHOD_ERROR) ||
      sd_bus_message_get_reply_cookie(message, &cookie) < 0) {
    return false;
  }
  const auto found = calls_.find(cookie);
  if (found == calls_.end()) return true;
  if (!mayAnswer(message, *found->second)) {
    const char* sender = sd_bus_message_get_sender(message);
    if (std::has_single_bit(++foreignReplies_)) {
      busLog(std::string("ignored a reply of ") +
             (sender != nullptr ? sender : "an unknown sender") + ", which was not asked (" +
             std::to_string(foreignReplies_) + " so far)");
    }
    return true;
  }
  finish(*found->second, message);
  return true;
}

void PendingCalls::finish(const PendingCall& call, sd_bus_message* reply) {
  const auto found = calls_.find(call.cookie_);
  if (found == calls_.end() || found->second.get() != &call) return;
  const auto owned = std::move(found->second);
  deadlines_.erase({call.deadline_, call.cookie_});
  calls_.erase(found);
  owned->onOutcome(reply);
}

void PendingCalls::end(const PendingCall& call) {
  finish(call, nullptr);
}

PendingCalls::Clock::time_point PendingCalls::nextDeadline() const {
  return deadlines_.empty() ? Clock::time_point::max() : deadlines_.begin()->first;
}

void PendingCalls::expire(Clock::time_point now) {
  while (nextDeadline() <= now) {
    end(*calls_.at(deadlines_.begin()->second));
  }
}

}  // namespace zq
