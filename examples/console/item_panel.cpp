#include "item_panel.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QTreeWidget>

#include "appearance.h"

namespace zq::console {
namespace {

enum Column { kName, kState, kDesktop, kDetail };
// The same in every panel, so that the columns of panels that lie below each other are aligned.
constexpr int kColumnWidths[] = {165, 125, 90};
constexpr int kKeyRole = Qt::UserRole;

QTreeWidget* makeList(const QStringList& columns, QWidget* parent) {
  auto* const list = new QTreeWidget(parent);
  list->setColumnCount(columns.size());
  list->setHeaderLabels(columns);
  list->setRootIsDecorated(false);
  list->setUniformRowHeights(true);
  list->setTextElideMode(Qt::ElideRight);
  list->setSizeAdjustPolicy(QAbstractScrollArea::AdjustToContents);
  int column = 0;
  for (const int width : kColumnWidths) list->setColumnWidth(column++, width);
  return list;
}

QLabel* makeHint(const QString& text, QWidget* parent) {
  auto* const hint = new QLabel(text, parent);
  hint->setObjectName("hint");
  hint->setAlignment(Qt::AlignCenter);
  hint->setWordWrap(true);
  return hint;
}

}  // namespace

ItemPanel::ItemPanel(const PanelTexts& texts, const QIcon& icon, QWidget* parent)
    : QFrame(parent),
      texts_(texts),
      count_(new QLabel(this)),
      hint_(makeHint("Shown as soon as there is a service", this)),
      button_(new QPushButton(this)),
      pages_(new QStackedWidget(this)),
      list_(makeList(texts.columns, this)) {
  count_->setObjectName("count");
  pages_->addWidget(hint_);
  pages_->addWidget(list_);

  auto* const sign = new QLabel(this);
  sign->setPixmap(icon.pixmap(16, 16));
  auto* const head = new QHBoxLayout;
  head->addWidget(sign);
  head->addWidget(makeHeading(texts.heading, this));
  head->addWidget(count_, 1);
  head->addWidget(button_);
  auto* const layout = new QVBoxLayout(this);
  layout->addLayout(head);
  layout->addWidget(pages_);

  connect(button_, &QPushButton::clicked, this, &ItemPanel::switchSelected);
  connect(list_, &QTreeWidget::itemDoubleClicked, this, &ItemPanel::switchSelected);
  connect(list_, &QTreeWidget::itemSelectionChanged, this, [this] {
    showButton();
    emit selectionChanged();
  });
  showTotals();
  showButton();
}

void ItemPanel::setItems(const QVector<Item>& items) {
  hint_->setText(texts_.empty);
  QSet<QString> gone(rows_.keyBegin(), rows_.keyEnd());
  for (const Item& item : items) gone.remove(item.key);
  for (const QString& key : gone) removeItem(key);
  for (const Item& item : items) setItem(item);
}

void ItemPanel::setItem(const Item& item) {
  QTreeWidgetItem*& row = rows_[item.key];
  if (row == nullptr) row = new QTreeWidgetItem(list_);
  items_[item.key] = item;
  show(row, item);
  if (list_->currentItem() == nullptr) list_->setCurrentItem(row);
  showTotals();
  showButton();
}

void ItemPanel::show(QTreeWidgetItem* row, const Item& item) {
  row->setData(kName, kKeyRole, item.key);
  row->setText(kName, item.name);
  row->setIcon(kState, lightIcon(item.light));
  row->setText(kState, item.state);
  row->setText(kDesktop, item.desktop);
  row->setText(kDetail, item.detail);
  row->setToolTip(kDetail, item.detail);
  row->setForeground(kDetail, kFaintText);
}

void ItemPanel::removeItem(const QString& key) {
  delete rows_.take(key);
  items_.remove(key);
  showTotals();
  showButton();
}

void ItemPanel::setTarget(const QString& desktop) {
  target_ = desktop;
  showButton();
}

Item ItemPanel::selected() const {
  const QTreeWidgetItem* const row = list_->currentItem();
  return row == nullptr ? Item{} : items_.value(row->data(kName, kKeyRole).toString());
}

void ItemPanel::showTotals() {
  pages_->setCurrentIndex(items_.isEmpty() ? 0 : 1);
  count_->setText(items_.isEmpty() ? QString() : QString::number(items_.size()));
}

void ItemPanel::showButton() {
  const Item item = selected();
  const bool lacksTarget = texts_.needsTarget && target_.isEmpty();
  const QString connectText = lacksTarget ? "Connect" : texts_.connect;
  button_->setText(item.connected ? texts_.disconnect
                                  : QString(connectText).replace("%1", target_));
  button_->setEnabled(!item.key.isEmpty() && (item.connected || !lacksTarget));
  button_->setToolTip(lacksTarget ? "Open the session of a desktop first" : QString());
}

void ItemPanel::switchSelected() {
  const Item item = selected();
  if (!button_->isEnabled()) return;
  emit switched(item.key, item.connected ? item.desktop : target_, !item.connected);
}

}  // namespace zq::console
