#include "pen_event.h"

#include <QTabletEvent>

namespace zq {

static_assert(kTabletMove == QEvent::TabletMove && kTabletPress == QEvent::TabletPress &&
              kTabletRelease == QEvent::TabletRelease);

std::optional<PenEvent> readPenEvent(const void* tabletEvent) {
  if (tabletEvent == nullptr) return std::nullopt;
  const auto& event = *static_cast<const QTabletEvent*>(tabletEvent);
  return PenEvent{event.type(), event.pressure(), event.rotation(), event.xTilt(),  event.yTilt(),
                  event.x(),    event.y(),        event.pos().x(),  event.pos().y()};
}

}  // namespace zq
