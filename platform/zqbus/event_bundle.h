// A batch of events in one message, as a direct line carries them while its client is behind: the
// name of each event, the number of its arguments, and the arguments.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zqbus/message.h"

namespace zq {

class EventBundle {
 public:
  /// False when the batch has no room for the event, or when the event has to be sent by itself: it
  /// is large, or cannot be sent at all.
  [[nodiscard]] bool add(const std::string& event, const ZQBusMessage& content);
  bool empty() const { return message_.argCount() == 0; }
  /// Returns the message to send, and leaves an empty batch.
  ZQBusMessage take();

  /// The events of a received batch, in order.
  static std::vector<std::shared_ptr<ZQBusMessage>> eventsOf(const ZQBusMessage& bundle);

 private:
  ZQBusMessage message_;
  std::size_t size_ = 0;
};

}  // namespace zq
