#include "event_log.h"

#include <QLabel>
#include <QStyle>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "appearance.h"

namespace zq::console {
namespace {

constexpr int kLinesKept = 1000;
constexpr int kTimeWidth = 125;

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
  list_->setColumnWidth(0, kTimeWidth);
  list_->setHeaderHidden(true);
  list_->setRootIsDecorated(false);
  list_->setUniformRowHeights(true);
  list_->setIconSize(QSize(14, 14));
  list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  auto* const layout = new QVBoxLayout(this);
  layout->addWidget(makeHeading("Events", this));
  layout->addWidget(list_);
}

void EventLog::add(const News& news) {
  auto* const line = new QTreeWidgetItem(list_, {news.time.toString("HH:mm:ss.zzz"), news.text});
  line->setIcon(0, style()->standardIcon(iconOf(news.severity)));
  line->setForeground(0, kFaintText);
  if (list_->topLevelItemCount() > kLinesKept) delete list_->takeTopLevelItem(0);
  list_->scrollToItem(line);
}

}  // namespace zq::console
