// The fields of a tablet event that the proxy reads. The one place that uses Qt.
#pragma once

#include <optional>

namespace zq {

struct PenEvent {
  int type;  ///< as QEvent::type()
  double pressure;
  double rotation;  ///< degrees
  int xTilt;
  int yTilt;
  int x;
  int y;
  int posX;  ///< relative to the widget
  int posY;
};

// The event types that the proxy handles.
inline constexpr int kTabletMove = 87;
inline constexpr int kTabletPress = 92;
inline constexpr int kTabletRelease = 93;

/// Reads a QTabletEvent, which stays the caller's; nothing when it is null.
std::optional<PenEvent> readPenEvent(const void* tabletEvent);

}  // namespace zq
