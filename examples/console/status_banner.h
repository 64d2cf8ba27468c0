// The line above all else that says how the service is.
#pragma once

#include <QFrame>

#include "item.h"

class QLabel;

namespace zq::console {

class StatusBanner : public QFrame {
  Q_OBJECT

 public:
  explicit StatusBanner(QWidget* parent = nullptr);

  void showState(ServiceState state);

 private:
  QLabel* icon_;
  QLabel* title_;
  QLabel* detail_;
};

}  // namespace zq::console
