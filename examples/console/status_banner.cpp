#include "status_banner.h"

#include <QAction>
#include <QHBoxLayout>
#include <QProgressBar>
#include <QPushButton>
#include <QStyle>
#include <QVariant>

#include "appearance.h"
#include "text_parts.h"

namespace zq::console {
namespace {

constexpr int kIconSize = 20;
constexpr int kProgressWidth = 90;
constexpr int kProgressHeight = 10;
constexpr int kLines = 2;

struct StateText {
  ServiceState state;
  bool connected;
  const char* look;
  QStyle::StandardPixmap icon;
  const char* title;
  const char* detail;
};
constexpr StateText kStates[] = {
    {ServiceState::Searching, false, "searching", QStyle::SP_MessageBoxInformation,
     "Looking for the peripheral service",
     "It is not on %1 yet. To try things out, run perix-devservice."},
    {ServiceState::Connected, true, "connected", QStyle::SP_DialogApplyButton, "Connected",
     "The peripheral service answers on %1."},
    {ServiceState::Died, false, "died", QStyle::SP_MessageBoxWarning, "The service died",
     "Waiting for it to return. The lists show the last known state; the pen goes on."},
    {ServiceState::Returned, true, "connected", QStyle::SP_DialogApplyButton, "Connected again",
     "The service returned on %1. Open sessions were opened anew and all lists read again."},
};

const StateText& textOf(ServiceState state) {
  for (const StateText& row : kStates) {
    if (row.state == state) return row;
  }
  return kStates[0];
}

QString busName() {
  return qEnvironmentVariableIsEmpty("ZQBUS_ADDRESS") ? "the session bus"
                                                      : "the bus of ZQBUS_ADDRESS";
}

QString capitalised(QString sentence) {
  if (!sentence.isEmpty()) sentence[0] = sentence[0].toUpper();
  return sentence;
}

}  // namespace

/// How the banner looks and reads.
struct StatusBanner::Face {
  const char* look;  // the style sheet's word for it
  QStyle::StandardPixmap icon;
  QString title;
  QString detail;
  bool busy = false;
  bool dismissable = false;
};

StatusBanner::StatusBanner(QWidget* parent)
    : QFrame(parent),
      icon_(new QLabel(this)),
      title_(new ElidedLabel(kLines, this)),
      detail_(new ElidedLabel(kLines, this)),
      progress_(new QProgressBar(this)),
      dismiss_(new QPushButton("Dis&miss", this)) {
  setObjectName("banner");
  title_->setObjectName("bannerTitle");
  detail_->setObjectName("bannerDetail");
  dismiss_->setObjectName("dismiss");
  explain(*dismiss_, "Put away the failure at the top", "Esc");
  auto* const escape = new QAction(dismiss_->whatsThis(), this);
  escape->setShortcut(Qt::Key_Escape);
  addAction(escape);
  connect(escape, &QAction::triggered, this, &StatusBanner::dismiss);
  connect(dismiss_, &QPushButton::clicked, this, &StatusBanner::dismiss);
  progress_->setRange(0, 0);  // how long it takes is not known
  progress_->setTextVisible(false);
  progress_->setFixedSize(kProgressWidth, kProgressHeight);

  auto* const layout = new QHBoxLayout(this);
  layout->setContentsMargins(10, 4, 10, 4);
  layout->setSpacing(10);
  layout->addWidget(icon_);
  layout->addWidget(title_);
  layout->addWidget(detail_, 1);
  layout->addWidget(progress_);
  layout->addWidget(dismiss_);
  showFace();
}

void StatusBanner::showState(ServiceState state) {
  state_ = state;
  if (textOf(state).connected) failure_ = {};
  showFace();
}

void StatusBanner::showWork(const QString& title) {
  work_ = title;
  showFace();
}

void StatusBanner::showResult(const News& news) {
  if (news.operation.isEmpty() || news.severity == Severity::Note) return;
  failure_ = news.severity == Severity::Success ? News{} : news;
  showFace();
}

void StatusBanner::dismiss() {
  failure_ = {};
  showFace();
}

// The reason of a failure has the larger part, however long the names in the title are.
void StatusBanner::resizeEvent(QResizeEvent* event) {
  constexpr double kTitleShare = 0.38;
  QFrame::resizeEvent(event);
  title_->setMaximumWidth(static_cast<int>(width() * kTitleShare));
}

StatusBanner::Face StatusBanner::stateFace() const {
  const StateText& text = textOf(state_);
  return {text.look, text.icon, text.title, QString(text.detail).replace("%1", busName())};
}

/// A service that is away comes before all else, and the operation that runs before the last.
StatusBanner::Face StatusBanner::face() const {
  if (!textOf(state_).connected) return stateFace();
  if (!work_.isEmpty()) {
    return {"busy", QStyle::SP_BrowserReload, work_, "Waiting for the service's answer.", true};
  }
  if (failure_.operation.isEmpty()) return stateFace();
  return {
      "failed", QStyle::SP_MessageBoxWarning, failure_.operation, capitalised(failure_.text), false,
      true};
}

void StatusBanner::showFace() {
  const Face shown = face();
  icon_->setPixmap(style()->standardIcon(shown.icon).pixmap(kIconSize, kIconSize));
  title_->setText(shown.title);
  detail_->setText(shown.detail);
  progress_->setVisible(shown.busy);
  dismiss_->setVisible(shown.dismissable);
  setAccessibleName(shown.title + ": " + shown.detail);
  setProperty("look", shown.look);
  style()->polish(this);  // the sheet chooses colours by the property
}

}  // namespace zq::console
