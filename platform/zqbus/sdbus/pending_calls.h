// The calls that were sent on one connection and have no reply yet.
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
  /// without a reply, at its deadline for instance. Called once, under the connection's mutex, when
  /// the call is no longer pending.
  virtual void onOutcome(sd_bus_message* reply) = 0;

 private:
  friend class PendingCalls;
  std::string asked_;  // the unique name that may answer; empty on a line
  uint64_t cookie_ = 0;
  std::chrono::steady_clock::time_point deadline_;
};

/// sd-bus matches a reply by its serial number alone, and a bus lets any client send a reply to any
/// other client, asked or not. So the calls that wait are listed here. A reply ends a call only if
/// its sender is the client or service that was asked, or if the bus daemon reports that this
/// receiver is gone; any other reply is ignored, and the call waits on. Used under the mutex of the
/// ClientConnection or ServiceConnection that owns the list.
class PendingCalls {
 public:
  using Clock = std::chrono::steady_clock;

  /// Sends `message`, and makes `call` pending until `deadline` or, when that is time_point::max(),
  /// until end(). 0, or a negative error number: then `call` is not pending.
  [[nodiscard]] int send(sd_bus* bus, sd_bus_message* message, std::shared_ptr<PendingCall> call,
                         Clock::time_point deadline);

  /// Whether `message` is a reply. It needs nothing more then: its call has ended with it, or it
  /// belongs to no pending call.
  bool take(sd_bus_message* message);

  /// Ends a call without a reply; does nothing when the call is not pending.
  void end(const PendingCall& call);
  /// Ends the calls for which `condition` holds, in the order in which they were sent.
  template <typename Condition>
  void endIf(Condition condition);

  /// The next deadline of a call; time_point::max() when no call has a deadline.
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
