#include "event_log.h"

#include <QLabel>
#include <QStyle>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "appearance.h"
#include "text_parts.h"

namespace zq::console {
namespace {

constexpr int kLinesKept = 1000;
constexpr char kTimeSample[] = "00:00:00.000     00";  // with the icon

QStyle::StandardPixmap iconOf(Severity severity) {
  switch (severity) {
    case Severity::Success:
      return QStyle::SP_DialogApplyButton;
    case Severity::Warning:
      return QStyle::SP_MessageBoxWarning;
    case Severity::Failure:
      return QStyle::SP_MessageBoxCritical;
    case Severity::Note:
      break;
  }
  return QStyle::SP_MessageBoxInformation;
}

}  // namespace

EventLog::EventLog(QWidget* parent) : QFrame(parent), list_(new QTreeWidget(this)) {
  list_->setObjectName("log");
  list_->setColumnCount(2);
  list_->setColumnWidth(0, list_->fontMetrics().horizontalAdvance(kTimeSample));
  list_->setHeaderHidden(true);
  list_->setRootIsDecorated(false);
  list_->setUniformRowHeights(true);
  list_->setIconSize(QSize(14, 14));
  list_->setItemDelegate(new CellDelegate(0, list_));
  list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  auto* const layout = new QVBoxLayout(this);
  layout->setContentsMargins(8, 6, 8, 6);
  layout->addWidget(makeHeading("Even&ts", this, list_));
  layout->addWidget(list_);
}

void EventLog::add(const News& news) {
  const QString introduction = news.operation.isEmpty() ? QString() : news.operation + ": ";
  auto* const line =
      new QTreeWidgetItem(list_, {news.time.toString("HH:mm:ss.zzz"), introduction + news.text});
  line->setIcon(0, style()->standardIcon(iconOf(news.severity)));
  if (list_->topLevelItemCount() > kLinesKept) delete list_->takeTopLevelItem(0);
  list_->scrollToItem(line);
}

}  // namespace zq::console
