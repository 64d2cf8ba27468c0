// A list of desktops, devices or printers, with the buttons for the selected item.
#pragma once

#include <QFrame>
#include <QHash>

#include "item.h"

class QCheckBox;
class QIcon;
class QLabel;
class QPushButton;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;

namespace zq::console {

/// The differences between panels.
struct PanelTexts {
  QString heading;  ///< with a mnemonic
  QString empty;    ///< shown in place of a list that is known to be empty
  /// The button's texts, with the same mnemonic, for an item that is not connected, that is
  /// connected, and that waits for a decision; %1 is the target.
  QString connect;
  QString disconnect;
  QString configure;
  QString help;         ///< what the button does
  QStringList columns;  ///< name, state, where it is connected, details: the first two at least
  bool needsTarget;     ///< whether connecting takes a desktop to connect into
};

class ItemPanel : public QFrame {
  Q_OBJECT

 public:
  ItemPanel(ItemKind kind, const PanelTexts& texts, const QIcon& icon, QWidget* parent = nullptr);

  void setItems(const QVector<Item>& items);
  /// Shows an item anew, or for the first time.
  void setItem(const Item& item);
  void removeItem(const QString& key);
  /// The desktop that items are connected into; none when empty.
  void setTarget(const QString& desktop);
  /// Whether operations can be asked for; without them the list can still be read.
  void setUsable(bool usable);
  /// Whether the list shows the last known state and not the present one.
  void setStale(bool stale);

  /// The selected item; one without a key when there is none.
  Item selected() const;

 signals:
  void selectionChanged();
  void requested(const zq::console::Request& request);

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  void makeEnterAction();
  QWidget* makeHead(const QIcon& icon);
  QWidget* makeDecision();
  void put(const Item& item);
  void show(QTreeWidgetItem* row, const Item& item);
  void showTotals();
  void showButtons();
  void showButtonText(const Item& item, bool lacksTarget);
  void ask(Verb verb);
  void askDefault();

  ItemKind kind_;
  PanelTexts texts_;
  QString target_;
  bool usable_ = false;
  QHash<QString, QTreeWidgetItem*> rows_;
  QHash<QString, Item> items_;

  // In the order of the Tab key.
  QLabel* count_;
  QPushButton* button_;
  QStackedWidget* pages_;
  QLabel* hint_;
  QTreeWidget* list_;
  QFrame* decision_;  ///< more choices for a device that waits for a decision
  QCheckBox* always_;
  QPushButton* ignore_;
};

}  // namespace zq::console
