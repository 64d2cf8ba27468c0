#include "status_banner.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QStyle>
#include <QVariant>

namespace zq::console {
namespace {

struct StateText {
  ServiceState state;
  const char* look;  // what the style sheet calls it
  QStyle::StandardPixmap icon;
  const char* title;
  const char* detail;
};
constexpr StateText kStates[] = {
    {ServiceState::Searching, "searching", QStyle::SP_MessageBoxInformation,
     "Looking for the peripheral service",
     "It does not run on %1. Start it (to try things out: perix-devservice), and this window "
     "connects."},
    {ServiceState::Connected, "connected", QStyle::SP_DialogApplyButton, "Connected",
     "The peripheral service answers on %1."},
    {ServiceState::Died, "died", QStyle::SP_MessageBoxWarning, "The service died",
     "Waiting for it to return. What is shown is what was last known; the pen goes on."},
    {ServiceState::Returned, "connected", QStyle::SP_DialogApplyButton, "Connected again",
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

}  // namespace

StatusBanner::StatusBanner(QWidget* parent)
    : QFrame(parent), icon_(new QLabel(this)), title_(new QLabel(this)), detail_(new QLabel(this)) {
  setObjectName("banner");
  title_->setObjectName("bannerTitle");
  detail_->setObjectName("bannerDetail");
  detail_->setWordWrap(true);
  auto* const layout = new QHBoxLayout(this);
  layout->setContentsMargins(12, 8, 12, 8);
  layout->setSpacing(10);
  layout->addWidget(icon_);
  layout->addWidget(title_);
  layout->addWidget(detail_, 1);
  showState(ServiceState::Searching);
}

void StatusBanner::showState(ServiceState state) {
  const StateText& text = textOf(state);
  icon_->setPixmap(style()->standardIcon(text.icon).pixmap(20, 20));
  title_->setText(text.title);
  detail_->setText(QString(text.detail).replace("%1", busName()));
  setProperty("state", text.look);
  style()->polish(this);  // the sheet chooses colours by the property
}

}  // namespace zq::console
