#include "console_window.h"

#include <QAction>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QStyle>

#include "appearance.h"
#include "event_log.h"
#include "item_panel.h"
#include "pen_canvas.h"
#include "pen_panel.h"
#include "session.h"
#include "shortcut_dialog.h"
#include "status_banner.h"
#include "workspace.h"

namespace zq::console {
namespace {

constexpr int kPatienceMs = 200;
constexpr QSize kSize(1280, 860);
constexpr QSize kLeastSize(480, 360);
constexpr QSize kFrame(16, 48);  // room for the frame that a window manager adds
const QString kGeometryKey = "geometry";

struct PanelRow {
  ItemKind kind;
  const char* name;
  QStyle::StandardPixmap icon;
  PanelTexts texts;
};

const PanelRow kPanels[] = {
    {ItemKind::Desktop,
     "desktops",
     QStyle::SP_ComputerIcon,
     {"&Desktops",
      "The service knows no desktop.",
      "&Open session",
      "End sessi&on",
      {},
      "Open or end the session of the selected desktop",
      {"Name", "Session"},
      false}},
    {ItemKind::Printer,
     "printers",
     QStyle::SP_FileIcon,
     {"&Printers",
      "There is no printer.",
      "Conn&ect to %1",
      "Disconn&ect",
      {},
      "Connect or disconnect the selected printer",
      {"Name", "State", "Desktop"},
      true}},
    {ItemKind::Device,
     "devices",
     QStyle::SP_DriveNetIcon,
     {"De&vices",
      "No device is plugged in.",
      "&Connect to %1",
      "Dis&connect",
      "&Configure for %1",
      "Connect, configure or disconnect the selected device",
      {"Name", "State", "Desktop", "Detail"},
      true}},
};

}  // namespace

ConsoleWindow::ConsoleWindow() : session_(new Session) {
  setWindowTitle("Peripheral console");
  auto* const page = new QWidget(this);
  auto* const layout = new QVBoxLayout(page);
  layout->addWidget(makeTop());
  layout->addWidget(makeWorkspace(), 1);
  setCentralWidget(page);
  takeSize();

  connectSession();
  connectLists();
  connectPen();
  showState(ServiceState::Searching);
  thread_.start();
}

ConsoleWindow::~ConsoleWindow() {
  QSettings settings;
  settings.setValue(kGeometryKey, saveGeometry());
  workspace_->save(settings);
  thread_.quit();
  thread_.wait();
}

// The parts are made in the order in which the Tab key goes through them.

QWidget* ConsoleWindow::makeTop() {
  auto* const top = new QWidget(this);
  banner_ = new StatusBanner(top);
  refresh_ = new QPushButton(style()->standardIcon(QStyle::SP_BrowserReload), "&Refresh", top);
  auto* const help = new QPushButton("&Shortcuts", top);
  bind(*refresh_, Qt::Key_F5, "Read all lists again", &ConsoleWindow::refresh);
  bind(*help, Qt::Key_F1, "Show all shortcuts", &ConsoleWindow::showHelp);
  auto* const layout = new QHBoxLayout(top);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(banner_, 1);
  layout->addWidget(refresh_);
  layout->addWidget(help);
  return top;
}

/// A key does the same as the button.
void ConsoleWindow::bind(QPushButton& button, const QKeySequence& keys, const QString& sentence,
                         void (ConsoleWindow::*run)()) {
  explain(button, sentence, keys.toString());
  connect(&button, &QPushButton::clicked, this, run);
  auto* const action = new QAction(sentence, this);
  action->setShortcut(keys);
  connect(action, &QAction::triggered, this, run);
  addAction(action);
}

QWidget* ConsoleWindow::makeWorkspace() {
  for (const PanelRow& row : kPanels) {
    auto* const panel = new ItemPanel(row.kind, row.texts, style()->standardIcon(row.icon), this);
    panel->setObjectName(row.name);
    panels_[row.kind] = panel;
    connect(panel, &ItemPanel::requested, this, &ConsoleWindow::request);
  }
  connect(panels_[ItemKind::Desktop], &ItemPanel::selectionChanged, this,
          &ConsoleWindow::chooseTarget);
  penPanel_ = new PenPanel(this);
  log_ = new EventLog(this);
  workspace_ = new Workspace({panels_[ItemKind::Desktop], panels_[ItemKind::Device],
                              panels_[ItemKind::Printer], penPanel_, log_},
                             this);
  return workspace_;
}

/// The last window's size, or one that fits on the screen.
void ConsoleWindow::takeSize() {
  const QSize room = QGuiApplication::primaryScreen()->availableSize() - kFrame;
  setMinimumSize(kLeastSize.boundedTo(room));
  resize(kSize.boundedTo(room));
  const QSettings settings;
  restoreGeometry(settings.value(kGeometryKey).toByteArray());
  workspace_->restore(settings);
}

void ConsoleWindow::connectSession() {
  session_->moveToThread(&thread_);
  connect(&thread_, &QThread::started, session_, &Session::start);
  connect(&thread_, &QThread::finished, session_, &QObject::deleteLater);
  connect(this, &ConsoleWindow::refreshWanted, session_, &Session::refresh);
  connect(this, &ConsoleWindow::requestWanted, session_, &Session::request);

  connect(session_, &Session::stateChanged, this, &ConsoleWindow::showState);
  connect(session_, &Session::told, this, [this](const News& news) {
    log_->add(news);
    banner_->showResult(news);
  });
  connect(session_, &Session::working, this, &ConsoleWindow::showWork);
  connect(session_, &Session::handled, this, [this] { asked_ = false; });
  patience_.setSingleShot(true);
  patience_.setInterval(kPatienceMs);
  connect(&patience_, &QTimer::timeout, this, [this] { setBusy(true); });
}

void ConsoleWindow::connectLists() {
  connect(session_, &Session::listed, this, [this](ItemKind kind, const QVector<Item>& items) {
    panels_[kind]->setItems(items);
    chooseTarget();
  });
  connect(session_, &Session::changed, this,
          [this](ItemKind kind, const Item& item) { panels_[kind]->setItem(item); });
  connect(session_, &Session::removed, this,
          [this](ItemKind kind, const QString& key) { panels_[kind]->removeItem(key); });
  // The keyboard begins at the desktops, as soon as there are any.
  auto* const first = new QObject(this);
  connect(session_, &Session::listed, first, [this, first] {
    panels_[ItemKind::Desktop]->setFocus();
    first->deleteLater();
  });
}

void ConsoleWindow::connectPen() {
  connect(session_, &Session::proxyReady, &pen_, &PenChannel::open);
  connect(penPanel_->canvas(), &PenCanvas::penMoved, &pen_, &PenChannel::send);
  connect(&pen_, &PenChannel::sent, penPanel_, &PenPanel::showPacket);
}

// --- What the user asks for ----------------------------------------------------------------------

// The library serves one operation after the other, so a second request would only wait.

void ConsoleWindow::refresh() {
  if (asked_ || !connected_) return;
  asked_ = true;
  emit refreshWanted();
}

void ConsoleWindow::request(const Request& request) {
  if (asked_) return;
  asked_ = true;
  emit requestWanted(request);
}

void ConsoleWindow::showHelp() {
  showShortcuts(*this);
}

// --- What the session tells ----------------------------------------------------------------------

void ConsoleWindow::showState(ServiceState state) {
  banner_->showState(state);
  connected_ = state == ServiceState::Connected || state == ServiceState::Returned;
  for (const auto& [kind, panel] : panels_) panel->setStale(!connected_);
  showUsable();
}

/// A short operation shows nothing: a sign that comes and goes at once would only flicker.
void ConsoleWindow::showWork(const QString& title) {
  work_ = title;
  if (busy_ || title.isEmpty()) setBusy(!title.isEmpty());
  if (title.isEmpty()) {
    patience_.stop();
  } else if (!busy_) {
    patience_.start();
  }
}

void ConsoleWindow::setBusy(bool busy) {
  busy_ = busy;
  banner_->showWork(busy ? work_ : QString());
  showUsable();
}

void ConsoleWindow::showUsable() {
  const bool usable = connected_ && !busy_;
  refresh_->setEnabled(usable);
  for (const auto& [kind, panel] : panels_) panel->setUsable(usable);
}

/// Devices and printers are connected into the selected desktop, once its session is open.
void ConsoleWindow::chooseTarget() {
  const Item desktop = panels_[ItemKind::Desktop]->selected();
  const QString target = desktop.connected ? desktop.key : QString();
  panels_[ItemKind::Device]->setTarget(target);
  panels_[ItemKind::Printer]->setTarget(target);
}

}  // namespace zq::console
