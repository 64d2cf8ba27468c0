// The window, and what connects its parts with the session and the pen.
#pragma once

#include <QMainWindow>
#include <QThread>
#include <map>

#include "item.h"
#include "pen_channel.h"

namespace zq::console {

class EventLog;
class ItemPanel;
class PenPanel;
class Session;
class StatusBanner;

class ConsoleWindow : public QMainWindow {
  Q_OBJECT

 public:
  /// Starts the session on a thread of its own.
  ConsoleWindow();
  /// Waits for the operation that the session is at, if any.
  ~ConsoleWindow() override;

 signals:
  void refreshWanted();
  void switchWanted(zq::console::ItemKind kind, const QString& key, const QString& desktop,
                    bool on);

 private:
  void makePanels();
  QWidget* makeLists();
  QWidget* makeTop();
  void connectSession();
  void connectPen();
  void showState(ServiceState state);
  void chooseTarget();

  QThread thread_;
  Session* session_;  ///< on thread_, deleted at its end
  PenChannel pen_;
  StatusBanner* banner_;
  std::map<ItemKind, ItemPanel*> panels_;
  PenPanel* penPanel_;
  EventLog* log_;
};

}  // namespace zq::console
