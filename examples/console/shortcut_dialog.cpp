#include "shortcut_dialog.h"

#include <QAction>
#include <QDialog>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QMap>
#include <QPushButton>
#include <QTabBar>
#include <QVariant>

#include "appearance.h"

namespace zq::console {
namespace {

using Shortcuts = QMap<QString, QStringList>;  // the keys by their meaning

QString mnemonicIn(const QString& text) {
  return QKeySequence::mnemonic(text).toString(QKeySequence::NativeText);
}

Shortcuts shortcutsOf(const QWidget& window) {
  Shortcuts shortcuts;
  const auto add = [&shortcuts](const QString& meaning, const QString& keys) {
    if (meaning.isEmpty() || keys.isEmpty() || shortcuts[meaning].contains(keys)) return;
    shortcuts[meaning].append(keys);
  };
  for (const auto* action : window.findChildren<QAction*>()) {
    for (const QKeySequence& keys : action->shortcuts()) {
      add(action->text(), keys.toString(QKeySequence::NativeText));
    }
  }
  for (const auto* part : window.findChildren<QWidget*>()) {
    add(part->whatsThis(), mnemonicIn(part->property("text").toString()));
  }
  for (const auto* tabs : window.findChildren<QTabBar*>()) {
    for (int tab = 0; tab < tabs->count(); ++tab) {
      add("Go to " + tabs->tabText(tab).remove('&'), mnemonicIn(tabs->tabText(tab)));
    }
  }
  return shortcuts;
}

}  // namespace

void showShortcuts(QWidget& window) {
  QDialog dialog(&window);
  dialog.setObjectName("shortcuts");
  dialog.setWindowTitle("Shortcuts");
  auto* const layout = new QGridLayout(&dialog);
  const Shortcuts shortcuts = shortcutsOf(window);
  for (auto row = shortcuts.begin(); row != shortcuts.end(); ++row) {
    const int line = layout->rowCount();
    layout->addWidget(makeHeading(row.value().join(", "), &dialog), line, 0);
    layout->addWidget(new QLabel(row.key(), &dialog), line, 1);
  }
  auto* const buttons = new QDialogButtonBox(QDialogButtonBox::Close, &dialog);
  buttons->button(QDialogButtonBox::Close)->setIcon({});  // theirs is black in the dark, too
  QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
  layout->addWidget(buttons, layout->rowCount(), 0, 1, 2);
  dialog.exec();
}

}  // namespace zq::console
