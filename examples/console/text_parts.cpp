#include "text_parts.h"

#include <QAbstractItemView>
#include <QHelpEvent>
#include <QPainter>
#include <QStyle>
#include <QTextLayout>
#include <QToolTip>
#include <QVariant>

#include "appearance.h"
#include "item.h"

namespace zq::console {
namespace {

constexpr int kLeastCharacters = 8;

}  // namespace

ElidedLabel::ElidedLabel(int lines, QWidget* parent) : QLabel(parent), lines_(lines) {
  setTextFormat(Qt::PlainText);
}

QSize ElidedLabel::sizeHint() const {
  return {fontMetrics().horizontalAdvance(text()) + 1, minimumSizeHint().height()};
}

QSize ElidedLabel::minimumSizeHint() const {
  const QFontMetrics metrics = fontMetrics();
  return {metrics.averageCharWidth() * kLeastCharacters, metrics.lineSpacing() * lines_};
}

QStringList ElidedLabel::shownLines() const {
  QTextLayout layout(text(), font());
  QTextOption option;
  option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
  layout.setTextOption(option);
  QStringList lines;
  layout.beginLayout();
  for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
    line.setLineWidth(width());
    const bool last = lines.size() + 1 == lines_;
    lines.append(
        last ? fontMetrics().elidedText(text().mid(line.textStart()), Qt::ElideRight, width())
             : text().mid(line.textStart(), line.textLength()));
    if (last) break;
  }
  layout.endLayout();
  return lines;
}

void ElidedLabel::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  style()->drawItemText(&painter, rect(), Qt::AlignLeft | Qt::AlignVCenter, palette(), isEnabled(),
                        shownLines().join('\n'), foregroundRole());
}

bool ElidedLabel::event(QEvent* event) {
  if (event->type() != QEvent::ToolTip) return QLabel::event(event);
  const bool cut = shownLines().join(QString()) != text();
  QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(),
                     cut ? plainToolTip(text()) : QString(), this);
  return true;
}

CellDelegate::CellDelegate(int faintColumn, QObject* parent)
    : QStyledItemDelegate(parent), faintColumn_(faintColumn) {}

bool CellDelegate::helpEvent(QHelpEvent* event, QAbstractItemView* view,
                             const QStyleOptionViewItem& option, const QModelIndex& index) {
  if (event->type() != QEvent::ToolTip) {
    return QStyledItemDelegate::helpEvent(event, view, option, index);
  }
  const bool cut = sizeHint(option, index).width() > view->visualRect(index).width();
  QToolTip::showText(event->globalPos(), cut ? plainToolTip(index.data().toString()) : QString(),
                     view);
  return true;
}

void CellDelegate::initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const {
  QStyledItemDelegate::initStyleOption(option, index);
  option->text = isolated(option->text);
  const bool stale = option->widget != nullptr && option->widget->property("stale").toBool();
  if (index.column() == faintColumn_ && !stale) {
    option->palette.setColor(QPalette::Text, colourOf(Tone::Faint));
  }
}

}  // namespace zq::console
