// The calls that were sent on one connection and wait for their replies.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace zq {

/// A call that waits for its reply.
class PendingCall {
 public:
  virtual ~PendingCall() = default;
  /// Ends the call: `reply` came from the connection that was asked; null when the call ends
  /// without one, at its deadline for one. Called once, under the lock, when the call is no longer
  /// pending.
  virtual void onOutcome(sd_bus_message* reply) = 0;

 private:
  friend class PendingCalls;
  std::string asked_;  // the unique name that may answer; empty at the end of a line
  uint64_t cookie_ = 0;
  std::chrono::steady_clock::time_point deadline_;
};

/// sd-bus matches a reply by its serial number alone, and a bus delivers a reply that nobody asked
/// for to whomever it names. So the account of calls is kept here, where a reply counts only from
/// the connection that was asked, or from the bus daemon when it tells that nobody is there to
/// answer. Everything here needs the lock of the connection.
class PendingCalls {
 public:
  using Clock = std::chrono::steady_clock;

  /// Sends `message` and waits for its reply, until `deadline` or, when that is the end of time,
  /// until end(). 0, or a negative error number: then `call` is not pending.
  [[nodiscard]] int send(sd_bus* bus, sd_bus_message* message, std::shared_ptr<PendingCall> call,
                         Clock::time_point deadline);

  /// Whether `message` is a reply, of which nothing else is to be done: the call that it belongs to
  /// has ended with it, or it was nobody's.
  bool take(sd_bus_message* message);

  /// Ends a call without a reply; nothing happens when it is not pending.
  void end(const PendingCall& call);
  /// Ends the calls that `condition` holds for, in the order in which they were sent.
  template <typename Condition>
  void endIf(Condition condition);

  /// When the next call's deadline passes; the end of time when no call has one.
  Clock::time_point nextDeadline() const;
  /// Ends the calls whose deadlines have passed.
  void expire(Clock::time_point now);

 private:
  static bool mayAnswer(sd_bus_message* reply, const PendingCall& call);
  void finish(const PendingCall& call, sd_bus_message* reply);

  std::map<uint64_t, std::shared_ptr<PendingCall>> calls_;  // by cookie: in the order of sending
  std::set<std::pair<Clock::time_point, uint64_t>> deadlines_;
  uint64_t foreignReplies_ = 0;
};

template <typename Condition>
void PendingCalls::endIf(Condition condition) {
  for (auto next = calls_.begin(); next != calls_.end();) {
    const auto call = (next++)->second;
    if (condition(*call)) end(*call);
  }
}

}  // namespace zq
