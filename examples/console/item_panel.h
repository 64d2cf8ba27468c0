// A list of desktops, devices or printers, with the button that connects and disconnects.
#pragma once

#include <QFrame>
#include <QHash>

#include "item.h"

class QIcon;
class QLabel;
class QPushButton;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;

namespace zq::console {

/// In what panels differ.
struct PanelTexts {
  QString heading;
  QString empty;    ///< shown in place of a list that is known to be empty
  QString connect;  ///< the button's text; %1 is the target
  QString disconnect;
  QStringList columns;  ///< name, state, where it is connected, details: the first two at least
  bool needsTarget;     ///< whether connecting takes a desktop to connect into
};

class ItemPanel : public QFrame {
  Q_OBJECT

 public:
  ItemPanel(const PanelTexts& texts, const QIcon& icon, QWidget* parent = nullptr);

  void setItems(const QVector<Item>& items);
  /// Shows an item anew, or for the first time.
  void setItem(const Item& item);
  void removeItem(const QString& key);
  /// The desktop that items are connected into; none when empty.
  void setTarget(const QString& desktop);

  /// The selected item; one without a key when there is none.
  Item selected() const;

 signals:
  void selectionChanged();
  /// The user wants the item connected into `desktop`, or taken out of it.
  void switched(const QString& key, const QString& desktop, bool on);

 private:
  void show(QTreeWidgetItem* row, const Item& item);
  void showTotals();
  void showButton();
  void switchSelected();

  PanelTexts texts_;
  QString target_;
  QHash<QString, QTreeWidgetItem*> rows_;
  QHash<QString, Item> items_;
  QLabel* count_;
  QLabel* hint_;
  QPushButton* button_;
  QStackedWidget* pages_;
  QTreeWidget* list_;
};

}  // namespace zq::console
