// Decides whether a callback of the bus may still use the proxy, and waits until the last has
// returned.
#pragma once

#include <cstdint>

#include "callback_lock.h"
#include "platform/util/mutex.h"

namespace zq {

/// The bus's callbacks share the gate, and not the proxy: a callback that begins after the proxy is
/// destroyed finds the gate closed. The bus can wait for the callbacks of all its users alone, and
/// the recovery of another proxy may last for a quarter of an hour.
class DeliveryGate {
 public:
  /// From now on, admits the deliveries of `connection` alone. False, without effect, while a Wait
  /// exists.
  bool open(uint64_t connection) EXCLUDES(mutex_);
  /// From now on, admits no delivery.
  void close() EXCLUDES(mutex_);

  /// Runs `delivery` if the gate admits deliveries of `connection`.
  template <typename Delivery>
  void deliver(uint64_t connection, Delivery delivery) {
    const Visit visit(*this, connection);
    if (!visit.admitted) return;
    const InsideCallback inside;
    delivery();
  }

  /// While a Wait exists, the gate does not open again, and deliveries end early where they can.
  class Wait {
   public:
    explicit Wait(DeliveryGate& gate);
    ~Wait();
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    /// Waits until the running deliveries have returned.
    void untilEmpty();

   private:
    DeliveryGate& gate_;
  };
  /// Whether a Wait exists.
  bool awaited() EXCLUDES(mutex_);

 private:
  static constexpr uint64_t kNone = 0;

  struct Visit {
    Visit(DeliveryGate& gate, uint64_t connection) : gate(gate), admitted(gate.enter(connection)) {}
    ~Visit() {
      if (admitted) gate.leave();
    }
    DeliveryGate& gate;
    const bool admitted;
  };
  bool enter(uint64_t connection) EXCLUDES(mutex_);
  void leave() EXCLUDES(mutex_);

  Mutex mutex_;
  ConditionVariable left_;
  uint64_t connection_ GUARDED_BY(mutex_) = kNone;
  int inside_ GUARDED_BY(mutex_) = 0;   // deliveries
  int waiters_ GUARDED_BY(mutex_) = 0;  // Wait objects
};

}  // namespace zq
