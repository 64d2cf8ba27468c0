// How the window looks: colours, fonts and the small things that several parts show alike.
#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>

#include "item.h"

class QApplication;
class QLabel;
class QWidget;

namespace zq::console {

inline const QColor kInk("#1c3d6e");
inline const QColor kGridLine("#eef1f5");
inline const QColor kSheetEdge("#d9dee5");
inline const QColor kFaintText("#7c8794");

/// Dresses the application. Once, before the first window.
void applyAppearance(QApplication& application);

/// A panel's heading.
QLabel* makeHeading(const QString& text, QWidget* parent);

/// A dot of the light's colour.
QIcon lightIcon(Light light);

QFont fixedFont();

}  // namespace zq::console
