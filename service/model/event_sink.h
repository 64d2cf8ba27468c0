// Where the events of the model go.
#pragma once

#include <cstdint>

#include "perix/events.h"
#include "zqbus/message.h"

namespace zq::devservice {

struct Event {
  uint32_t desktop = 0;
  EventKind kind;
  ZQBusBytes payload;
};

/// Takes events to the clients in the order in which they come. Neither operation blocks.
class EventSink {
 public:
  virtual ~EventSink() = default;
  virtual void send(const Event& event) = 0;
  virtual void broadcast(const Event& event) = 0;
};

}  // namespace zq::devservice
