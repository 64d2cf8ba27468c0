// The process behind a service's name, and the rule of its death.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "delivery_queue.h"

namespace zq {

/// The process behind a service's name, as one proxy interface sees it. Its death is told once, on
/// a thread of its own, behind everything that arrived before. What is not said to be for any
/// thread happens under one lock of the carrier.
class Peer {
 public:
  /// Shared with nobody but a running call of it: once it is reset, none begins.
  using DeathCallback = std::shared_ptr<const std::function<void()>>;
  /// What setDeathCallback() takes; null for an empty function.
  static DeathCallback shared(std::function<void()> onDeath);

  Peer(std::string serviceName, std::string uniqueName)
      : service(std::move(serviceName)), owner(std::move(uniqueName)) {}

  const std::string service;
  const std::string owner;  ///< its unique name on the bus

  /// Whether the process is gone; for any thread.
  bool gone() const { return gone_; }
  /// Notes that the process is gone; false when that was known. The calls that wait for it are to
  /// be ended then, and deathNotice() is to be posted behind their outcomes.
  bool leave() { return !gone_.exchange(true); }

  /// Takes `callback` and leaves the former one there, which may hold anything: it goes after the
  /// lock. When the process is gone already, deathNotice() is to be posted.
  void setDeathCallback(DeathCallback& callback) { onDeath_.swap(callback); }
  /// The job that tells the death; empty when there is nobody to tell.
  DeliveryQueue::Job deathNotice(DeliveryQueue& deliveries) const;

 private:
  std::atomic<bool> gone_ = false;
  DeathCallback onDeath_;
};

}  // namespace zq
