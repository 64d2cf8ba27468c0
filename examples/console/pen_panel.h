// The pen: the sheet, and the packets that drawing on it sends.
#pragma once

#include <QFrame>

#include "perix/pen_packet.h"

class QLabel;
class QTreeWidget;

namespace zq::console {

class PenCanvas;

class PenPanel : public QFrame {
  Q_OBJECT

 public:
  explicit PenPanel(QWidget* parent = nullptr);

  PenCanvas* canvas() const { return canvas_; }

 public slots:
  void showPacket(const zq::PenPacket& packet);

 private:
  void clear();
  void showCount();

  QLabel* count_;
  PenCanvas* canvas_;
  QTreeWidget* packets_;
  int sent_ = 0;
};

}  // namespace zq::console
