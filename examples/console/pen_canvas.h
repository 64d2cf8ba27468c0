// A sheet to draw on.
#pragma once

#include <QPixmap>
#include <QWidget>

class QTabletEvent;

namespace zq::console {

/// Draws the pen's strokes, and passes each of the pen's events on. The mouse's left button is
/// a pen of pressure 1.
class PenCanvas : public QWidget {
  Q_OBJECT

 public:
  explicit PenCanvas(QWidget* parent = nullptr);

 public slots:
  void clear();

 signals:
  /// Directly connected receivers only: the event is gone after the return.
  void penMoved(QTabletEvent* event);

 protected:
  void tabletEvent(QTabletEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  void takeMouse(QMouseEvent* event, int type);
  void drawTo(const QPointF& position, double pressure);

  QPixmap sheet_;
  QPointF last_;
  bool down_ = false;
  bool blank_ = true;
};

}  // namespace zq::console
