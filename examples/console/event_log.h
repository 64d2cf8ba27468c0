// The list of events and results, the latest last.
#pragma once

#include <QFrame>

#include "item.h"

class QTreeWidget;

namespace zq::console {

class EventLog : public QFrame {
  Q_OBJECT

 public:
  explicit EventLog(QWidget* parent = nullptr);

  void add(const News& news);

 private:
  QTreeWidget* list_;
};

}  // namespace zq::console
