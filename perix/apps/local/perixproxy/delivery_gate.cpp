#include "delivery_gate.h"

namespace zq {

bool DeliveryGate::open(uint64_t connection) {
  const MutexLock lock(mutex_);
  if (waiters_ > 0) return false;
  connection_ = connection;
  return true;
}

void DeliveryGate::close() {
  const MutexLock lock(mutex_);
  connection_ = kNone;
}

bool DeliveryGate::enter(uint64_t connection) {
  const MutexLock lock(mutex_);
  if (connection != connection_) return false;
  ++inside_;
  return true;
}

void DeliveryGate::leave() {
  const MutexLock lock(mutex_);
  if (--inside_ == 0) left_.notifyAll();
}

DeliveryGate::Wait::Wait(DeliveryGate& gate) : gate_(gate) {
  const MutexLock lock(gate_.mutex_);
  ++gate_.waiters_;
}

DeliveryGate::Wait::~Wait() {
  const MutexLock lock(gate_.mutex_);
  --gate_.waiters_;
}

void DeliveryGate::Wait::untilEmpty() {
  const MutexLock lock(gate_.mutex_);
  while (gate_.inside_ > 0) gate_.left_.wait(gate_.mutex_);
}

bool DeliveryGate::awaited() {
  const MutexLock lock(mutex_);
  return waiters_ > 0;
}

}  // namespace zq
