#include "appearance.h"

#include <QAbstractButton>
#include <QApplication>
#include <QEvent>
#include <QFontDatabase>
#include <QLabel>
#include <QPainter>
#include <QPalette>
#include <QPixmap>

namespace zq::console {
namespace {

// "@name;" stands for a colour of the table below.
constexpr char kStyleSheet[] = R"(
  QMainWindow, QSplitter, QTabWidget { background: @window; }
  zq--console--ItemPanel, zq--console--PenPanel, zq--console--EventLog {
    background: @panel; border: 1px solid @edge; border-radius: 6px; }
  QLabel { color: @text; }
  QLabel#heading { font-weight: 600; }
  QLabel#count, QLabel#hint { color: @faint; }
  QTreeWidget { border: 1px solid transparent; border-radius: 3px; background: @panel; color: @text; outline: none; }
  QTreeWidget:focus { border: 1px solid @accent; }
  QTreeWidget::item { padding: 3px 2px; border: none; }
  QTreeWidget::item:selected { background: @quiet; color: @text; }
  QTreeWidget::item:selected:active { background: @selection; color: @selected; }
  QTreeWidget[stale="true"] { color: @off; }
  QTreeWidget[stale="true"]::item:selected { background: @quiet; color: @off; }
  QHeaderView { background: @panel; border: none; }
  QHeaderView::section {
    background: @panel; color: @faint; border: none; border-bottom: 1px solid @edge;
    padding: 3px 6px 3px 4px; }
  QScrollBar { background: transparent; border: none; }
  QScrollBar:vertical { width: 10px; }
  QScrollBar:horizontal { height: 10px; }
  QScrollBar::handle { background: @handle; border-radius: 4px; margin: 1px; }
  QScrollBar::handle:vertical { min-height: 24px; }
  QScrollBar::handle:horizontal { min-width: 24px; }
  QScrollBar::add-line, QScrollBar::sub-line { width: 0; height: 0; }
  QPushButton {
    background: @button; color: @text; border: 1px solid @line; border-radius: 4px;
    padding: 4px 10px; }
  QPushButton:hover { background: @hover; border-color: @accent; }
  QPushButton:focus { border: 2px solid @accent; padding: 3px 9px; }
  QPushButton:pressed { background: @selection; }
  QPushButton:disabled { color: @off; border-color: @edge; }
  QCheckBox { color: @text; }
  QCheckBox::indicator {
    width: 11px; height: 11px; border: 1px solid @faint; border-radius: 3px; background: @panel; }
  QCheckBox::indicator:checked { background: @accent; border-color: @text; }
  QCheckBox:focus { color: @accent; }
  QTabBar::tab { color: @faint; padding: 5px 14px; border-bottom: 2px solid transparent; }
  QTabBar::tab:selected { color: @text; border-bottom: 2px solid @accent; }
  QTabWidget::pane { border: none; }
  QFrame#decision { background: @amberPanel; border: 1px solid @amberLine; border-radius: 4px; }
  QFrame#banner { border-radius: 6px; border: 1px solid transparent; }
  QFrame#banner[look="searching"], QFrame#banner[look="busy"] {
    background: @bluePanel; border-color: @blueLine; }
  QFrame#banner[look="connected"] { background: @greenPanel; border-color: @greenLine; }
  QFrame#banner[look="failed"] { background: @amberPanel; border-color: @amberLine; }
  QFrame#banner[look="died"] { background: @redPanel; border-color: @redLine; }
  QLabel#bannerTitle { font-weight: 600; }
  QProgressBar { background: @panel; border: 1px solid @line; border-radius: 3px; }
  QProgressBar::chunk { background: @accent; border-radius: 2px; }
  QToolTip { background: @panel; color: @text; border: 1px solid @line; }
)";

struct Shade {
  const char* name;
  const char* light;
  const char* dark;
};
// The colours that parts draw with come first, in the order of Tone.
constexpr Shade kShades[] = {
    {"ink", "#1c3d6e", "#a8c7fa"},        {"grid", "#eef1f5", "#272c33"},
    {"edge", "#d9dee5", "#3a414b"},       {"faint", "#5d6875", "#a3adb9"},
    {"panel", "#ffffff", "#1f2329"},      {"window", "#f3f5f8", "#16191d"},
    {"text", "#1b2530", "#e6eaef"},       {"off", "#8b95a1", "#8a94a0"},
    {"accent", "#2f74d0", "#6ba4f2"},     {"selection", "#cfe1fa", "#274a78"},
    {"selected", "#10294a", "#f1f6fd"},   {"quiet", "#e9edf2", "#30363e"},
    {"handle", "#c3cbd5", "#4a535e"},     {"button", "#f7f9fb", "#2a3038"},
    {"line", "#b9c3cf", "#4d5763"},       {"hover", "#eaf1fb", "#333c48"},
    {"bluePanel", "#eaf1fb", "#1d2b3f"},  {"blueLine", "#b9d0f0", "#35557f"},
    {"greenPanel", "#e9f6ec", "#1b2f22"}, {"greenLine", "#b7dfc1", "#35593f"},
    {"amberPanel", "#fdf3e0", "#362a15"}, {"amberLine", "#edcd90", "#6d5527"},
    {"redPanel", "#fdeceb", "#3a2120"},   {"redLine", "#f0b9b4", "#74403c"},
};

struct LightColour {
  Light light;
  const char* colour;
};
constexpr LightColour kLightColours[] = {
    {Light::Off, "#9aa4b0"},
    {Light::On, "#2fa84f"},
    {Light::Attention, "#e8a317"},
};

const char* colourOf(Light light) {
  for (const LightColour& row : kLightColours) {
    if (row.light == light) return row.colour;
  }
  return kLightColours[0].colour;
}

const char* valueOf(const Shade& shade) {
  constexpr int kMiddle = 128;
  const bool dark = QApplication::palette().color(QPalette::Window).lightness() < kMiddle;
  return dark ? shade.dark : shade.light;
}

void dress(QApplication& application) {
  QString sheet = kStyleSheet;
  for (const Shade& shade : kShades) {
    sheet.replace(QString("@%1;").arg(shade.name), QString(valueOf(shade)) + ";");
  }
  if (sheet != application.styleSheet()) application.setStyleSheet(sheet);
}

/// Hears of another palette: the desktop was switched between light and dark.
class PaletteWatch : public QObject {
 public:
  explicit PaletteWatch(QApplication& application)
      : QObject(&application), application_(application) {
    application.installEventFilter(this);
  }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (watched == &application_ && event->type() == QEvent::ApplicationPaletteChange) {
      dress(application_);
    }
    return false;
  }

 private:
  QApplication& application_;
};

}  // namespace

void applyAppearance(QApplication& application) {
  QApplication::setStyle("Fusion");
  dress(application);
  new PaletteWatch(application);  // the application owns it
}

QColor colourOf(Tone tone) {
  return QColor(valueOf(kShades[static_cast<int>(tone)]));
}

QLabel* makeHeading(const QString& text, QWidget* parent, QWidget* buddy) {
  auto* const heading = new QLabel(text, parent);
  heading->setObjectName("heading");
  heading->setBuddy(buddy);
  if (buddy != nullptr) {
    buddy->setAccessibleName(QString(text).remove('&'));
    heading->setWhatsThis("Go to " + buddy->accessibleName());
  }
  return heading;
}

void explain(QAbstractButton& button, const QString& sentence, const QString& keys) {
  button.setWhatsThis(sentence);
  button.setToolTip(toolTipOf(sentence, keys.isEmpty() ? button.shortcut().toString() : keys));
}

QString toolTipOf(const QString& sentence, const QString& keys) {
  return plainToolTip(QString("%1 (%2)").arg(sentence, keys));
}

QString plainToolTip(const QString& text) {
  return "<span>" + text.toHtmlEscaped() + "</span>";
}

QIcon lightIcon(Light light) {
  constexpr int kSize = 64;  // views draw it smaller, on fine screens sharply
  constexpr int kMargin = 12;
  QPixmap dot(kSize, kSize);
  dot.fill(Qt::transparent);
  QPainter painter(&dot);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(QColor(colourOf(light)));
  painter.drawEllipse(dot.rect().adjusted(kMargin, kMargin, -kMargin, -kMargin));
  QIcon icon(dot);
  icon.addPixmap(dot, QIcon::Selected);  // else the selection tints it
  return icon;
}

QFont fixedFont() {
  return QFontDatabase::systemFont(QFontDatabase::FixedFont);
}

}  // namespace zq::console
