/// @file
/// A pen event as PerixProxy::SendPenEvent takes it, for clients of any toolkit.
///
/// Clients of Qt make it from a QTabletEvent with perix/qt_pen_event.h.
#pragma once

#include <cstdint>

namespace zq {

// The types of pen events that the packets tell apart.
inline constexpr int32_t kPenMove = 87;     ///< the pen moved, pressed or not
inline constexpr int32_t kPenPress = 92;    ///< the pen came down
inline constexpr int32_t kPenRelease = 93;  ///< the pen was lifted

/// One event of a pen. A plain value.
struct PenEvent {
  /// One of the types above. A packet carries any other number as its code, unchanged.
  int32_t type = kPenMove;
  int32_t x = 0;        ///< pixels, relative to the window that shows the desktop
  int32_t y = 0;        ///< as x
  double pressure = 0;  ///< 0 to 1
  double rotation = 0;  ///< of the pen around its own axis, degrees
  int32_t xTilt = 0;    ///< angle between the pen and the perpendicular, degrees, to the right
  int32_t yTilt = 0;    ///< as xTilt, towards the user
};

}  // namespace zq
