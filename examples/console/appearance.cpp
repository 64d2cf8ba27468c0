#include "appearance.h"

#include <QApplication>
#include <QFontDatabase>
#include <QLabel>
#include <QPainter>
#include <QPixmap>

namespace zq::console {
namespace {

constexpr char kStyleSheet[] = R"(
  QMainWindow, QSplitter { background: #f3f5f8; }
  zq--console--ItemPanel, zq--console--PenPanel, zq--console--EventLog { background: white; border: 1px solid #d9dee5; border-radius: 6px; }
  QLabel#heading { font-weight: 600; font-size: 11pt; color: #22303f; }
  QLabel#count, QLabel#packetCount, QLabel#hint { color: #7c8794; }
  QTreeWidget { border: none; background: white; outline: none; }
  QTreeWidget::item { padding: 3px 2px; border: none; }
  QTreeWidget::item:selected { background: #dbe8fb; color: #14304f; }
  QTreeWidget::item:disabled { color: #a5afba; }
  QTreeWidget::item:selected:disabled { background: #f0f3f6; color: #a5afba; }
  QHeaderView::section {
    background: white; color: #7c8794; border: none; border-bottom: 1px solid #e4e8ee;
    padding: 4px 6px 4px 4px; }
  QScrollBar { background: transparent; border: none; }
  QScrollBar:vertical { width: 10px; }
  QScrollBar:horizontal { height: 10px; }
  QScrollBar::handle { background: #cfd6de; border-radius: 4px; margin: 1px; }
  QScrollBar::handle:vertical { min-height: 24px; }
  QScrollBar::handle:horizontal { min-width: 24px; }
  QScrollBar::add-line, QScrollBar::sub-line { width: 0; height: 0; }
  QPushButton {
    background: #f7f9fb; border: 1px solid #c9d1db; border-radius: 4px; padding: 5px 12px; }
  QPushButton:hover { background: #eaf1fb; border-color: #8fb2e3; }
  QPushButton:pressed { background: #d7e5f8; }
  QPushButton:disabled { color: #a5afba; background: #f7f9fb; border-color: #e2e6eb; }
  QFrame#banner { border-radius: 6px; border: 1px solid transparent; }
  QFrame#banner[state="searching"] { background: #eaf1fb; border-color: #b9d0f0; }
  QFrame#banner[state="connected"] { background: #e9f6ec; border-color: #b7dfc1; }
  QFrame#banner[state="died"] { background: #fdeceb; border-color: #f0b9b4; }
  QLabel#bannerTitle { font-weight: 600; }
  QLabel#bannerDetail { color: #46525f; }
)";

struct LightColour {
  Light light;
  const char* colour;
};
constexpr LightColour kLightColours[] = {
    {Light::Off, "#c3cad3"},
    {Light::On, "#2fa84f"},
    {Light::Attention, "#e8a317"},
};

const char* colourOf(Light light) {
  for (const LightColour& row : kLightColours) {
    if (row.light == light) return row.colour;
  }
  return kLightColours[0].colour;
}

}  // namespace

void applyAppearance(QApplication& application) {
  QApplication::setStyle("Fusion");
  QFont font = QApplication::font();
  font.setPointSize(10);
  QApplication::setFont(font);
  application.setStyleSheet(kStyleSheet);
}

QLabel* makeHeading(const QString& text, QWidget* parent) {
  auto* const heading = new QLabel(text, parent);
  heading->setObjectName("heading");
  return heading;
}

QIcon lightIcon(Light light) {
  constexpr int kSize = 16;
  QPixmap dot(kSize, kSize);
  dot.fill(Qt::transparent);
  QPainter painter(&dot);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(QColor(colourOf(light)));
  painter.drawEllipse(QRectF(3, 3, kSize - 6, kSize - 6));
  QIcon icon(dot);
  icon.addPixmap(dot, QIcon::Selected);  // else the selection tints it
  return icon;
}

QFont fixedFont() {
  return QFontDatabase::systemFont(QFontDatabase::FixedFont);
}

}  // namespace zq::console
