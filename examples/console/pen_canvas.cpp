#include "pen_canvas.h"

#include <QPainter>
#include <QResizeEvent>
#include <QTabletEvent>

#include "appearance.h"

namespace zq::console {
namespace {

constexpr int kGrid = 24;
constexpr double kThinnest = 1.0;
constexpr double kThickest = 5.0;

}  // namespace

PenCanvas::PenCanvas(QWidget* parent) : QWidget(parent) {
  setMinimumSize(200, 120);
  setCursor(Qt::CrossCursor);
  setTabletTracking(true);  // a pen that only hovers is sent, too
}

void PenCanvas::clear() {
  sheet_.fill(Qt::transparent);
  blank_ = true;
  update();
}

void PenCanvas::tabletEvent(QTabletEvent* event) {
  event->accept();  // so that no mouse event is made of it
  if (event->type() == QEvent::TabletPress) {
    down_ = true;
    last_ = event->posF();
  }
  if (down_) drawTo(event->posF(), event->pressure());
  if (event->type() == QEvent::TabletRelease) down_ = false;
  emit penMoved(event);
}

void PenCanvas::mousePressEvent(QMouseEvent* event) {
  takeMouse(event, QEvent::TabletPress);
}
void PenCanvas::mouseMoveEvent(QMouseEvent* event) {
  takeMouse(event, QEvent::TabletMove);
}
void PenCanvas::mouseReleaseEvent(QMouseEvent* event) {
  takeMouse(event, QEvent::TabletRelease);
}

void PenCanvas::takeMouse(QMouseEvent* event, int type) {
  // A press and a release are the left button's own; a move counts while it is held.
  const bool moves = type == QEvent::TabletMove;
  const bool left =
      moves ? event->buttons().testFlag(Qt::LeftButton) : event->button() == Qt::LeftButton;
  if (!left) return;
  QTabletEvent pen(static_cast<QEvent::Type>(type), event->localPos(), event->screenPos(),
                   QTabletEvent::Stylus, QTabletEvent::Pen, 1.0, 0, 0, 0.0, 0.0, 0,
                   event->modifiers(), 0, event->button(), event->buttons());
  tabletEvent(&pen);
}

void PenCanvas::drawTo(const QPointF& position, double pressure) {
  QPainter painter(&sheet_);
  painter.setRenderHint(QPainter::Antialiasing);
  const double width = kThinnest + pressure * (kThickest - kThinnest);
  painter.setPen(QPen(colourOf(Tone::Ink), width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
  painter.drawLine(last_, position);
  const int margin = static_cast<int>(kThickest) + 1;
  const QRectF touched = QRectF(last_, position).normalized();
  update(blank_ ? rect() : touched.toAlignedRect().adjusted(-margin, -margin, margin, margin));
  blank_ = false;
  last_ = position;
}

void PenCanvas::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.fillRect(rect(), colourOf(Tone::Panel));
  painter.setPen(colourOf(Tone::Grid));
  for (int x = kGrid; x < width(); x += kGrid) painter.drawLine(x, 0, x, height());
  for (int y = kGrid; y < height(); y += kGrid) painter.drawLine(0, y, width(), y);
  painter.drawPixmap(0, 0, sheet_);
  painter.setPen(colourOf(Tone::Edge));
  painter.drawRect(rect().adjusted(0, 0, -1, -1));
  if (blank_) {
    painter.setPen(colourOf(Tone::Faint));
    painter.drawText(rect(), Qt::AlignCenter, "Draw here, with a pen or the mouse");
  }
}

void PenCanvas::resizeEvent(QResizeEvent* event) {
  QPixmap larger(sheet_.size().expandedTo(event->size()));
  larger.fill(Qt::transparent);
  QPainter(&larger).drawPixmap(0, 0, sheet_);
  sheet_ = larger;
}

// The strokes that are drawn already take the ink of another appearance, too.
void PenCanvas::changeEvent(QEvent* event) {
  if (event->type() != QEvent::StyleChange || sheet_.isNull()) return;
  QPainter painter(&sheet_);
  painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
  painter.fillRect(sheet_.rect(), colourOf(Tone::Ink));
}

}  // namespace zq::console
