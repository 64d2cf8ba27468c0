/// @file
/// Makes a PenEvent from a QTabletEvent of Qt 5 or Qt 6, the Qt that the client itself uses.
///
/// Inline functions alone, compiled by the client: the library knows nothing of them and links no
/// Qt. With Qt 6 the client links Qt's Gui library, where the event keeps its values.
#pragma once

#include <QTabletEvent>

#include "perix/pen_event.h"

namespace zq {

static_assert(kPenMove == QEvent::TabletMove && kPenPress == QEvent::TabletPress &&
              kPenRelease == QEvent::TabletRelease);

/// The event as SendPenEvent takes it. The position is that relative to the widget, rounded to
/// whole pixels; tilts lose their fraction. `event` stays the caller's.
inline PenEvent PenEventOf(const QTabletEvent& event) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
  const QPoint position = event.position().toPoint();
#else
  const QPoint position = event.pos();
#endif
  PenEvent record;
  record.type = event.type();
  record.x = position.x();
  record.y = position.y();
  record.pressure = event.pressure();
  record.rotation = event.rotation();
  record.xTilt = static_cast<int32_t>(event.xTilt());
  record.yTilt = static_cast<int32_t>(event.yTilt());
  return record;
}

}  // namespace zq
