// Several events in one message, as a direct line carries them while its client is behind: of each
// its name, the number of its arguments, and those.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zqbus/message.h"

namespace zq {

class EventBundle {
 public:
  /// False when there is no room for this one any more, or when it has to go by itself: it is
  /// large, or cannot be sent at all.
  [[nodiscard]] bool add(const std::string& event, const ZQBusMessage& content);
  bool empty() const { return message_.argCount() == 0; }
  /// What to send; the bundle is empty then.
  ZQBusMessage take();

  /// The events of a bundle that was received, in order.
  static std::vector<std::shared_ptr<ZQBusMessage>> eventsOf(const ZQBusMessage& bundle);

 private:
  ZQBusMessage message_;
  std::size_t size_ = 0;
};

}  // namespace zq
