#include "item_panel.h"

#include <QAction>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QStyle>
#include <QTreeWidget>
#include <algorithm>
#include <array>

#include "appearance.h"
#include "text_parts.h"

namespace zq::console {
namespace {

enum Column { kName, kState, kDesktop, kDetail };
// Texts that fit into the columns; the name and the details share the rest.
constexpr const char* kSamples[] = {"", "Connected  000", "Desktop  00"};
constexpr int kKeyRole = Qt::UserRole;
constexpr int kRowsAtLeast = 3;  // the heads of the columns are the first
constexpr int kNameCharacters = 6;
constexpr int kTargetCharacters = 14;

struct Spare {
  Column column;
  int characters;  // the list's width from which on the column is shown
};
constexpr Spare kSpares[] = {{kDesktop, 40}, {kDetail, 56}};

QTreeWidget* makeList(const QStringList& columns, QWidget* parent) {
  auto* const list = new QTreeWidget(parent);
  list->setColumnCount(columns.size());
  list->setHeaderLabels(columns);
  list->setRootIsDecorated(false);
  list->setUniformRowHeights(true);
  list->setTextElideMode(Qt::ElideRight);
  list->setItemDelegate(new CellDelegate(kDetail, list));
  const QFontMetrics metrics = list->fontMetrics();
  list->setMinimumHeight(2 * kRowsAtLeast * metrics.lineSpacing());
  QHeaderView& head = *list->header();
  head.setStretchLastSection(false);
  head.setMinimumSectionSize(kNameCharacters * metrics.averageCharWidth());
  for (int column = 0; column < columns.size(); ++column) {
    const bool fixed = column == kState || column == kDesktop;
    head.setSectionResizeMode(column, fixed ? QHeaderView::Interactive : QHeaderView::Stretch);
    if (fixed) list->setColumnWidth(column, metrics.horizontalAdvance(kSamples[column]));
  }
  return list;
}

QLabel* makeHint(const QString& text, QWidget* parent) {
  auto* const hint = new QLabel(text, parent);
  hint->setObjectName("hint");
  hint->setAlignment(Qt::AlignCenter);
  hint->setWordWrap(true);
  return hint;
}

Verb defaultVerb(const Item& item) {
  if (item.connected) return Verb::Disconnect;
  return item.waiting ? Verb::Configure : Verb::Connect;
}

// The focus stays in the panel when a button that has it can no longer be used.
void setAvailable(QWidget& control, bool available, QWidget& fallback) {
  if (!available && control.hasFocus()) fallback.setFocus();
  control.setEnabled(available);
}

}  // namespace

ItemPanel::ItemPanel(ItemKind kind, const PanelTexts& texts, const QIcon& icon, QWidget* parent)
    : QFrame(parent),
      kind_(kind),
      texts_(texts),
      count_(new QLabel(this)),
      button_(new QPushButton(texts.connect, this)),
      pages_(new QStackedWidget(this)),
      hint_(makeHint("Shown as soon as there is a service", this)),
      list_(makeList(texts.columns, this)),
      decision_(new QFrame(this)),
      always_(new QCheckBox("&Always", decision_)),
      ignore_(new QPushButton("&Ignore", decision_)) {
  setFocusProxy(list_);
  pages_->addWidget(hint_);
  pages_->addWidget(list_);
  auto* const layout = new QVBoxLayout(this);
  layout->setContentsMargins(8, 6, 8, 6);
  layout->addWidget(makeHead(icon));
  layout->addWidget(pages_, 1);
  layout->addWidget(makeDecision());

  makeEnterAction();
  connect(button_, &QPushButton::clicked, this, &ItemPanel::askDefault);
  connect(list_, &QTreeWidget::itemDoubleClicked, this, &ItemPanel::askDefault);
  connect(list_, &QTreeWidget::itemSelectionChanged, this, [this] {
    showButtons();
    emit selectionChanged();
  });
  showTotals();
  showButtons();
}

void ItemPanel::makeEnterAction() {
  auto* const action = new QAction("Connect, configure or disconnect the selected item", list_);
  action->setShortcuts({Qt::Key_Return, Qt::Key_Enter});
  action->setShortcutContext(Qt::WidgetShortcut);
  connect(action, &QAction::triggered, this, &ItemPanel::askDefault);
  list_->addAction(action);
}

QWidget* ItemPanel::makeHead(const QIcon& icon) {
  auto* const head = new QWidget(this);
  auto* const sign = new QLabel(head);
  sign->setPixmap(icon.pixmap(16, 16));
  count_->setObjectName("count");
  button_->setObjectName("action");
  explain(*button_, texts_.help);
  auto* const layout = new QHBoxLayout(head);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(sign);
  layout->addWidget(makeHeading(texts_.heading, head, list_));
  layout->addWidget(count_, 1);
  layout->addWidget(button_);
  return head;
}

QWidget* ItemPanel::makeDecision() {
  decision_->setObjectName("decision");
  ignore_->setObjectName("ignore");
  explain(*always_, "Decide the same for every new device of this type from now on");
  explain(*ignore_, "Ignore the new device until it is plugged again");
  auto* const layout = new QHBoxLayout(decision_);
  layout->setContentsMargins(8, 4, 4, 4);
  layout->addWidget(new QLabel("Configure or ignore it", decision_), 1);
  layout->addWidget(always_);
  layout->addWidget(ignore_);
  connect(ignore_, &QPushButton::clicked, this, [this] { ask(Verb::Ignore); });
  return decision_;
}

// The names come first where there is little room.
void ItemPanel::resizeEvent(QResizeEvent* event) {
  QFrame::resizeEvent(event);
  for (const Spare& spare : kSpares) {
    const bool fits = width() >= spare.characters * fontMetrics().averageCharWidth();
    list_->setColumnHidden(spare.column, !fits);
  }
}

void ItemPanel::setItems(const QVector<Item>& items) {
  hint_->setText(texts_.empty);
  QSet<QString> gone(rows_.keyBegin(), rows_.keyEnd());
  for (const Item& item : items) gone.remove(item.key);
  for (const QString& key : gone) removeItem(key);
  for (const Item& item : items) put(item);
  showTotals();
  showButtons();
}

void ItemPanel::setItem(const Item& item) {
  put(item);
  showTotals();
  showButtons();
}

void ItemPanel::put(const Item& item) {
  QTreeWidgetItem*& row = rows_[item.key];
  if (row == nullptr) {
    row = new QTreeWidgetItem;
    // A device that waits for a decision is to be seen, however long the list is.
    list_->insertTopLevelItem(item.waiting ? 0 : list_->topLevelItemCount(), row);
  }
  items_[item.key] = item;
  show(row, item);
  if (list_->currentItem() == nullptr) list_->setCurrentItem(row);
}

void ItemPanel::show(QTreeWidgetItem* row, const Item& item) {
  row->setData(kName, kKeyRole, item.key);
  row->setText(kName, item.name);
  row->setIcon(kState, lightIcon(item.light));
  row->setText(kState, item.state);
  row->setText(kDesktop, item.desktop);
  row->setText(kDetail, item.detail);
}

void ItemPanel::removeItem(const QString& key) {
  delete rows_.take(key);
  items_.remove(key);
  showTotals();
  showButtons();
}

void ItemPanel::setTarget(const QString& desktop) {
  target_ = desktop;
  showButtons();
}

void ItemPanel::setUsable(bool usable) {
  usable_ = usable;
  showButtons();
}

void ItemPanel::setStale(bool stale) {
  list_->setProperty("stale", stale);
  list_->style()->polish(list_);  // the sheet chooses the colour by the property
}

Item ItemPanel::selected() const {
  const QTreeWidgetItem* const row = list_->currentItem();
  return row == nullptr ? Item{} : items_.value(row->data(kName, kKeyRole).toString());
}

void ItemPanel::showTotals() {
  const auto waiting =
      std::count_if(items_.begin(), items_.end(), [](const Item& item) { return item.waiting; });
  const QString total = items_.isEmpty() ? QString() : QString::number(items_.size());
  count_->setText(waiting == 0 ? total : QString("%1, %2 new").arg(total).arg(waiting));
  pages_->setCurrentIndex(items_.isEmpty() ? 0 : 1);
}

void ItemPanel::showButtons() {
  const Item item = selected();
  const bool lacksTarget = texts_.needsTarget && target_.isEmpty() && !item.connected;
  showButtonText(item, lacksTarget);
  setAvailable(*button_, usable_ && !item.key.isEmpty() && !lacksTarget, *list_);
  setAvailable(*ignore_, usable_ && item.waiting, *list_);
  decision_->setVisible(item.waiting);
}

/// The button names the desktop that it connects into.
void ItemPanel::showButtonText(const Item& item, bool lacksTarget) {
  const QString texts[] = {texts_.connect, texts_.disconnect, texts_.configure};
  const QFontMetrics metrics = fontMetrics();
  const QString target =
      metrics.elidedText(target_, Qt::ElideMiddle, kTargetCharacters * metrics.averageCharWidth());
  QString text = texts[static_cast<int>(defaultVerb(item))];
  if (lacksTarget) text.truncate(text.indexOf(' '));  // "Connect to %1": there is no %1
  const QString inFull = QString(text).remove('&').replace("%1", target_);
  button_->setText(text.replace("%1", QString(target).replace("&", "&&")));
  button_->setToolTip(lacksTarget ? "Open the session of a desktop first"
                                  : toolTipOf(inFull, button_->shortcut().toString()));
}

void ItemPanel::ask(Verb verb) {
  const Item item = selected();
  Request request;
  request.verb = verb;
  request.kind = kind_;
  request.item = item;
  request.desktop = item.connected ? item.desktop : target_;
  request.always = always_->isChecked();
  always_->setChecked(false);
  emit requested(request);
}

void ItemPanel::askDefault() {
  if (button_->isEnabled()) ask(defaultVerb(selected()));
}

}  // namespace zq::console
