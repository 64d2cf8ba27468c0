#include "console_window.h"

#include <QHBoxLayout>
#include <QPushButton>
#include <QSplitter>
#include <QStyle>

#include "event_log.h"
#include "item_panel.h"
#include "pen_canvas.h"
#include "pen_panel.h"
#include "session.h"
#include "status_banner.h"

namespace zq::console {
namespace {

struct PanelRow {
  ItemKind kind;
  const char* name;
  QStyle::StandardPixmap icon;
  int share;  // of the height
  PanelTexts texts;
};

const PanelRow kPanels[] = {
    {ItemKind::Desktop,
     "desktops",
     QStyle::SP_ComputerIcon,
     14,
     {"Desktops",
      "The service knows no desktop.",
      "Open session",
      "End session",
      {"Name", "Session"},
      false}},
    {ItemKind::Device,
     "devices",
     QStyle::SP_DriveNetIcon,
     31,
     {"Devices",
      "No device is plugged in.",
      "Connect to %1",
      "Disconnect",
      {"Name", "State", "Desktop", "Detail"},
      true}},
    {ItemKind::Printer,
     "printers",
     QStyle::SP_FileIcon,
     18,
     {"Printers",
      "There is no printer.",
      "Connect to %1",
      "Disconnect",
      {"Name", "State", "Desktop"},
      true}},
};

}  // namespace

ConsoleWindow::ConsoleWindow()
    : session_(new Session),
      banner_(new StatusBanner(this)),
      penPanel_(new PenPanel(this)),
      log_(new EventLog(this)) {
  setWindowTitle("Peripheral console");
  resize(1280, 900);
  makePanels();

  auto* const middle = new QSplitter(Qt::Horizontal, this);
  middle->addWidget(makeLists());
  middle->addWidget(penPanel_);
  middle->setSizes({600, 660});
  auto* const body = new QSplitter(Qt::Vertical, this);
  body->addWidget(middle);
  body->addWidget(log_);
  body->setSizes({650, 190});

  auto* const page = new QWidget(this);
  auto* const layout = new QVBoxLayout(page);
  layout->addWidget(makeTop());
  layout->addWidget(body, 1);
  setCentralWidget(page);

  connectSession();
  connectPen();
  showState(ServiceState::Searching);
  thread_.start();
}

ConsoleWindow::~ConsoleWindow() {
  thread_.quit();
  thread_.wait();
}

void ConsoleWindow::makePanels() {
  for (const PanelRow& row : kPanels) {
    auto* const panel = new ItemPanel(row.texts, style()->standardIcon(row.icon), this);
    panel->setObjectName(row.name);
    panels_[row.kind] = panel;
    connect(panel, &ItemPanel::switched, this,
            [this, kind = row.kind](const QString& key, const QString& desktop, bool on) {
              emit switchWanted(kind, key, desktop, on);
            });
  }
  connect(panels_[ItemKind::Desktop], &ItemPanel::selectionChanged, this,
          &ConsoleWindow::chooseTarget);
}

QWidget* ConsoleWindow::makeLists() {
  auto* const lists = new QSplitter(Qt::Vertical, this);
  for (const PanelRow& row : kPanels) {
    lists->addWidget(panels_[row.kind]);
    lists->setStretchFactor(lists->count() - 1, row.share);
  }
  return lists;
}

QWidget* ConsoleWindow::makeTop() {
  auto* const top = new QWidget(this);
  auto* const refresh =
      new QPushButton(style()->standardIcon(QStyle::SP_BrowserReload), "Refresh", top);
  connect(refresh, &QPushButton::clicked, this, &ConsoleWindow::refreshWanted);
  auto* const layout = new QHBoxLayout(top);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(banner_, 1);
  layout->addWidget(refresh);
  return top;
}

void ConsoleWindow::connectSession() {
  session_->moveToThread(&thread_);
  connect(&thread_, &QThread::started, session_, &Session::start);
  connect(&thread_, &QThread::finished, session_, &QObject::deleteLater);
  connect(this, &ConsoleWindow::refreshWanted, session_, &Session::refresh);
  connect(this, &ConsoleWindow::switchWanted, session_, &Session::switchItem);

  connect(session_, &Session::stateChanged, this, &ConsoleWindow::showState);
  connect(session_, &Session::told, this, [this](const News& news) { log_->add(news); });
  connect(session_, &Session::listed, this, [this](ItemKind kind, const QVector<Item>& items) {
    panels_[kind]->setItems(items);
    chooseTarget();
  });
  connect(session_, &Session::changed, this, [this](ItemKind kind, const Item& item) {
    panels_[kind]->setItem(item);
    chooseTarget();
  });
  connect(session_, &Session::removed, this,
          [this](ItemKind kind, const QString& key) { panels_[kind]->removeItem(key); });
}

void ConsoleWindow::connectPen() {
  connect(session_, &Session::proxyReady, &pen_, &PenChannel::open);
  connect(penPanel_->canvas(), &PenCanvas::penMoved, &pen_, &PenChannel::send);
  connect(&pen_, &PenChannel::sent, penPanel_, &PenPanel::showPacket);
}

void ConsoleWindow::showState(ServiceState state) {
  banner_->showState(state);
  const bool connected = state == ServiceState::Connected || state == ServiceState::Returned;
  for (const auto& [kind, panel] : panels_) panel->setEnabled(connected);
}

/// Devices and printers are connected into the selected desktop, once its session is open.
void ConsoleWindow::chooseTarget() {
  const Item desktop = panels_[ItemKind::Desktop]->selected();
  const QString target = desktop.connected ? desktop.key : QString();
  panels_[ItemKind::Device]->setTarget(target);
  panels_[ItemKind::Printer]->setTarget(target);
}

}  // namespace zq::console
