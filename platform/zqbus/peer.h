// The process behind a service's name, and how its death is reported.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "delivery_queue.h"

namespace zq {

/// The process behind a service's name, as one proxy interface sees it. Its death is reported
/// once, on a thread of its own, after everything that arrived before. Used under one mutex of the
/// carrier, where a function does not say that any thread may call it.
class Peer {
 public:
  /// Owned by the peer and by a running call of it alone: once the peer resets it, no call begins.
  using DeathCallback = std::shared_ptr<const std::function<void()>>;
  /// The form that setDeathCallback() takes; null for an empty function.
  static DeathCallback shared(std::function<void()> onDeath);

  Peer(std::string serviceName, std::string uniqueName)
      : service(std::move(serviceName)), owner(std::move(uniqueName)) {}

  const std::string service;
  const std::string owner;  ///< its unique name on the bus

  /// Whether the process is gone; any thread.
  bool gone() const { return gone_; }
  /// Marks the process as gone; false when it was marked before. After true, end the calls that
  /// wait for it, and post deathNotice() behind their outcomes.
  bool leave() { return !gone_.exchange(true); }

  /// Swaps `callback` with the former callback; destroy that after unlocking, as its destructor is
  /// the program's code. When the process is gone already, post deathNotice().
  void setDeathCallback(DeathCallback& callback) { onDeath_.swap(callback); }
  /// The job that calls the death callback; empty without a callback.
  DeliveryQueue::Job deathNotice(DeliveryQueue& deliveries) const;

 private:
  std::atomic<bool> gone_ = false;
  DeathCallback onDeath_;
};

}  // namespace zq
