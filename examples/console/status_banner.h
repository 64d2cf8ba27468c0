// The line above all else: the state of the service, the operation that takes long, the last
// failure.
#pragma once

#include <QFrame>

#include "item.h"

class QLabel;
class QProgressBar;
class QPushButton;

namespace zq::console {

class StatusBanner : public QFrame {
  Q_OBJECT

 public:
  explicit StatusBanner(QWidget* parent = nullptr);

  /// Being connected puts an older failure away.
  void showState(ServiceState state);
  /// The operation that takes long; none with an empty title.
  void showWork(const QString& title);
  /// A failed operation is shown until dismiss() or until an operation succeeds.
  void showResult(const News& news);

 public slots:
  void dismiss();

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  struct Face;

  Face stateFace() const;
  Face face() const;
  void showFace();

  ServiceState state_ = ServiceState::Searching;
  QString work_;
  News failure_;
  QLabel* icon_;
  QLabel* title_;
  QLabel* detail_;
  QProgressBar* progress_;
  QPushButton* dismiss_;
};

}  // namespace zq::console
