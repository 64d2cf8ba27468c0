#include "workspace.h"

#include <QResizeEvent>
#include <QSettings>
#include <QTabBar>
#include <QTabWidget>

namespace zq::console {
namespace {

// In lines of text, so that a larger font counts as a smaller window.
constexpr int kWide = 64;
constexpr int kHigh = 27;

const QString kBodyKey = "handles/body";
const QString kLeftKey = "handles/left";
const QString kColumnKeys[] = {"handles/wide", "handles/narrow"};

// Shares of the room, which the splitter scales.
const QList<int> kBody = {560, 170};
const QList<int> kLeft = {40, 60};
const QList<int> kColumns = {270, 390, 440};

void setUp(QSplitter& splitter, const QList<int>& shares) {
  splitter.setChildrenCollapsible(false);  // the keyboard cannot bring a hidden panel back
  splitter.setSizes(shares);
  for (int part = 0; part < splitter.count(); ++part) {
    splitter.setStretchFactor(part, shares[part]);
  }
}

}  // namespace

Workspace::Workspace(const Parts& parts, QWidget* parent)
    : QSplitter(Qt::Vertical, parent),
      parts_(parts),
      tabs_(new QTabWidget(this)),
      columns_(new QSplitter(Qt::Horizontal, this)),
      left_(new QSplitter(Qt::Vertical, this)) {
  left_->addWidget(parts.desktops);
  left_->addWidget(parts.printers);
  setUp(*left_, kLeft);
  columns_->addWidget(left_);
  columns_->addWidget(parts.devices);
  columns_->addWidget(parts.pen);
  setUp(*columns_, kColumns);
  tabs_->setDocumentMode(true);
  tabs_->tabBar()->setDrawBase(false);
  tabs_->tabBar()->setFocusPolicy(Qt::NoFocus);  // Alt and a letter, or Ctrl+Tab, change the page
  tabs_->setTabBarAutoHide(true);  // there is nothing to choose while all panels have room
  tabs_->addTab(columns_, "Perip&herals");
  addWidget(tabs_);
  addWidget(parts.events);
  setUp(*this, kBody);
}

void Workspace::save(QSettings& settings) const {
  settings.setValue(kBodyKey, saveState());
  settings.setValue(kLeftKey, left_->saveState());
  settings.setValue(kColumnKeys[narrow_ ? 1 : 0], columns_->saveState());
  settings.setValue(kColumnKeys[narrow_ ? 0 : 1], otherColumns_);
}

void Workspace::restore(const QSettings& settings) {
  restoreState(settings.value(kBodyKey).toByteArray());
  left_->restoreState(settings.value(kLeftKey).toByteArray());
  columns_->restoreState(settings.value(kColumnKeys[0]).toByteArray());
  otherColumns_ = settings.value(kColumnKeys[1]).toByteArray();
}

void Workspace::resizeEvent(QResizeEvent* event) {
  QSplitter::resizeEvent(event);
  const int line = fontMetrics().lineSpacing();
  placePen(width() < kWide * line);
  placeEvents(height() < kHigh * line);
}

void Workspace::placePen(bool narrow) {
  if (narrow == narrow_) return;
  narrow_ = narrow;
  const QByteArray before = columns_->saveState();
  if (narrow) {
    tabs_->insertTab(1, parts_.pen, "Pe&n");
  } else {
    tabs_->removeTab(tabs_->indexOf(parts_.pen));
    columns_->addWidget(parts_.pen);
    parts_.pen->show();  // a page that is not current is hidden
  }
  columns_->restoreState(otherColumns_);
  otherColumns_ = before;
}

void Workspace::placeEvents(bool low) {
  const int tab = tabs_->indexOf(parts_.events);
  if (low == (tab >= 0)) return;
  if (low) {
    tabs_->addTab(parts_.events, "Even&ts");
  } else {
    tabs_->removeTab(tab);
    addWidget(parts_.events);
    parts_.events->show();
  }
}

}  // namespace zq::console
