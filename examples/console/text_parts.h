// Texts that are cut to the room that there is, with the full text as the tool tip.
#pragma once

#include <QFrame>
#include <QLabel>
#include <QStyledItemDelegate>

namespace zq::console {

/// A label of at most some lines. It is as high as these lines whatever its text, so that another
/// text moves nothing around it, and it never asks for the width of its text.
class ElidedLabel : public QLabel {
  Q_OBJECT

 public:
  ElidedLabel(int lines, QWidget* parent);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  bool event(QEvent* event) override;

 private:
  QStringList shownLines() const;

  int lines_;
};

/// Draws the cells of a list: one column (none: -1) fainter than the others. A cell whose text is
/// cut has it as the tool tip.
class CellDelegate : public QStyledItemDelegate {
  Q_OBJECT

 public:
  CellDelegate(int faintColumn, QObject* parent);

  bool helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                 const QModelIndex& index) override;

 protected:
  void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override;

 private:
  int faintColumn_;
};

}  // namespace zq::console
