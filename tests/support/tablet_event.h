// Tablet events of Qt 5 and of Qt 6, whose constructors differ.
#pragma once

#include <QTabletEvent>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <QPointingDevice>
#endif

namespace zq::test {

/// The position on the screen is another than that in the widget.
inline QTabletEvent tabletEvent(QEvent::Type type, QPointF position, double pressure, int xTilt,
                                int yTilt, double rotation) {
  const QPointF onScreen = position + QPointF(100, 100);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
  static const QPointingDevice device;
  return QTabletEvent(type, &device, position, onScreen, pressure, static_cast<float>(xTilt),
                      static_cast<float>(yTilt), 0, rotation, 0, Qt::NoModifier, Qt::NoButton,
                      Qt::NoButton);
#else
  return QTabletEvent(type, position, onScreen, QTabletEvent::Stylus, QTabletEvent::Pen, pressure,
                      xTilt, yTilt, 0, rotation, 0, Qt::NoModifier, 1, Qt::NoButton, Qt::NoButton);
#endif
}

}  // namespace zq::test
