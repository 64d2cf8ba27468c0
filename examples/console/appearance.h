// Colours, fonts and the small things that several parts show alike.
#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>

#include "item.h"

class QAbstractButton;
class QApplication;
class QLabel;
class QWidget;

namespace zq::console {

/// The colours that the parts draw with themselves.
enum class Tone { Ink, Grid, Edge, Faint, Panel };

/// Dresses the application in light or dark, whichever its palette is, and again whenever the
/// palette changes. Once, before the first window.
void applyAppearance(QApplication& application);

/// The colour in the appearance of this moment. Widgets hear of another appearance by the event
/// QEvent::StyleChange.
QColor colourOf(Tone tone);

/// A panel's heading. The mnemonic in `text` leads to `buddy`, if there is one.
QLabel* makeHeading(const QString& text, QWidget* parent, QWidget* buddy = nullptr);

/// Shows a sentence about a button as the tool tip, with the keys that press it, and in the list of
/// shortcuts. Without `keys` they are those of the button's mnemonic.
void explain(QAbstractButton& button, const QString& sentence, const QString& keys = {});
QString toolTipOf(const QString& sentence, const QString& keys);

/// A tool tip that shows the text as it is, even if it looks like HTML.
QString plainToolTip(const QString& text);

/// A dot of the light's colour.
QIcon lightIcon(Light light);

QFont fixedFont();

}  // namespace zq::console
