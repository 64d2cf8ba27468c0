// The window, and the connections of its parts with the session and the pen.
#pragma once

#include <QMainWindow>
#include <QThread>
#include <QTimer>
#include <map>

#include "item.h"
#include "pen_channel.h"

class QPushButton;

namespace zq::console {

class EventLog;
class ItemPanel;
class PenPanel;
class Session;
class StatusBanner;
class Workspace;

class ConsoleWindow : public QMainWindow {
  Q_OBJECT

 public:
  /// Starts the session on a thread of its own. Takes the size and the places of the last window,
  /// which are kept under the names of the application.
  ConsoleWindow();
  /// Waits for the operation that the session is at, if any.
  ~ConsoleWindow() override;

 signals:
  void refreshWanted();
  void requestWanted(const zq::console::Request& request);

 private:
  QWidget* makeTop();
  void bind(QPushButton& button, const QKeySequence& keys, const QString& sentence,
            void (ConsoleWindow::*run)());
  QWidget* makeWorkspace();
  void takeSize();
  void connectSession();
  void connectLists();
  void connectPen();

  void refresh();
  void showHelp();
  void request(const Request& request);
  void showState(ServiceState state);
  void showWork(const QString& title);
  void setBusy(bool busy);
  void showUsable();
  void chooseTarget();

  QThread thread_;
  Session* session_;  ///< on thread_, deleted at its end
  PenChannel pen_;
  StatusBanner* banner_;
  QPushButton* refresh_;
  std::map<ItemKind, ItemPanel*> panels_;
  PenPanel* penPanel_;
  EventLog* log_;
  Workspace* workspace_;

  bool connected_ = false;
  bool asked_ = false;  ///< the session has not handled the last request yet
  bool busy_ = false;   ///< an operation takes long
  QString work_;        ///< the operation that runs
  QTimer patience_;     ///< runs until the operation counts as long
};

}  // namespace zq::console
