#include "delivery_gate.h"

namespace zq {

bool DeliveryGate::open(uint64_t connection) {
  const std::lock_guard lock(mutex_);
  if (waiters_ > 0) return false;
  connection_ = connection;
  return true;
}

void DeliveryGate::close() {
  const std::lock_guard lock(mutex_);
  connection_ = kNobody;
}

bool DeliveryGate::enter(uint64_t connection) {
  const std::lock_guard lock(mutex_);
  if (connection != connection_) return false;
  ++inside_;
  return true;
}

void DeliveryGate::leave() {
  const std::lock_guard lock(mutex_);
  if (--inside_ == 0) left_.notify_all();
}

DeliveryGate::Wait::Wait(DeliveryGate& gate) : gate_(gate) {
  const std::lock_guard lock(gate_.mutex_);
  ++gate_.waiters_;
}

DeliveryGate::Wait::~Wait() {
  const std::lock_guard lock(gate_.mutex_);
  --gate_.waiters_;
}

void DeliveryGate::Wait::untilEmpty() {
  std::unique_lock lock(gate_.mutex_);
  gate_.left_.wait(lock, [this] { return gate_.inside_ == 0; });
}

bool DeliveryGate::awaited() {
  const std::lock_guard lock(mutex_);
  return waiters_ > 0;
}

}  // namespace zq
