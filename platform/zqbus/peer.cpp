#include "peer.h"

#include <utility>

namespace zq {

Peer::DeathCallback Peer::shared(std::function<void()> onDeath) {
  if (!onDeath) return nullptr;
  return std::make_shared<const std::function<void()>>(std::move(onDeath));
}

DeliveryQueue::Job Peer::deathNotice(DeliveryQueue& deliveries) const {
  if (onDeath_ == nullptr) return {};
  return [&deliveries, weak = std::weak_ptr(onDeath_)] {
    deliveries.runApart([weak] {
      if (const auto onDeath = weak.lock()) (*onDeath)();
    });
  };
}

}  // namespace zq
