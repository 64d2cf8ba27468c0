// Who may call the proxy on the bus's threads, and when the last of them has left.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "callback_lock.h"

namespace zq {

/// The bus's callbacks hold it, not the proxy: one that begins late finds the gate closed where the
/// proxy was. The bus itself can only say when the callbacks of all its users have ended, and the
/// recovery of another proxy may last for a quarter of an hour.
class DeliveryGate {
 public:
  /// Lets the deliveries of a connection in, and those of no other. False, and nothing changes,
  /// while somebody waits for the last to leave.
  bool open(uint64_t connection);
  /// Lets nobody in any more.
  void close();

  /// Runs a delivery of a connection, unless that connection is over.
  template <typename Delivery>
  void deliver(uint64_t connection, Delivery delivery) {
    const Visit visit(*this, connection);
    if (!visit.admitted) return;
    const InsideCallback inside;
    delivery();
  }

  /// While one lives, the gate does not open again, and deliveries that can end early do.
  class Wait {
   public:
    explicit Wait(DeliveryGate& gate);
    ~Wait();
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    /// Waits until nobody is inside.
    void untilEmpty();

   private:
    DeliveryGate& gate_;
  };
  bool awaited();

 private:
  static constexpr uint64_t kNobody = 0;

  struct Visit {
    Visit(DeliveryGate& gate, uint64_t connection) : gate(gate), admitted(gate.enter(connection)) {}
    ~Visit() {
      if (admitted) gate.leave();
    }
    DeliveryGate& gate;
    const bool admitted;
  };
  bool enter(uint64_t connection);
  void leave();

  std::mutex mutex_;
  std::condition_variable left_;
  uint64_t connection_ = kNobody;
  int inside_ = 0;
  int waiters_ = 0;
};

}  // namespace zq
