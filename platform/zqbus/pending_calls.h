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
  /// Ends the call: `reply` came from the connection that was asked; null when the deadline has
  /// passed. Called once, under the lock; the call is no longer pending.
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
  /// until remove(). 0, or a negative error number: then `call` is not pending.
  [[nodiscard]] int send(sd_bus* bus, sd_bus_message* message, std::shared_ptr<PendingCall> call,
                         Clock::time_point deadline);

  /// Whether `message` is a reply, of which nothing else is to be done: the call that it belongs to
  /// has ended with it, or it was nobody's.
  bool take(sd_bus_message* message);

  /// Stops waiting; nothing happens when the call is not pending.
  void remove(const PendingCall& call);
  /// The call that was sent first, null when none is pending.
  std::shared_ptr<PendingCall> first() const;
  template <typename Visit>
  void forEach(Visit visit) const {
    for (const auto& [cookie, call] : calls_) visit(call);
  }

  /// When the next call's deadline passes; the end of time when no call has one.
  Clock::time_point nextDeadline() const;
  /// Ends the calls whose deadlines have passed.
  void expire(Clock::time_point now);

 private:
  static bool mayAnswer(sd_bus_message* reply, const PendingCall& call);

  std::map<uint64_t, std::shared_ptr<PendingCall>> calls_;  // by cookie: in the order of sending
  std::set<std::pair<Clock::time_point, uint64_t>> deadlines_;
  uint64_t foreignReplies_ = 0;
};

}  // namespace zq
