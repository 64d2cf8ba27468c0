#include "tools/perixctl/event_feed.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

namespace zq::ctl {
namespace {

// The key of the feed's own desktop callback: no desktop has an empty id. It is told of the
// service's death even when there is no desktop.
const std::string kOwnKey;

}  // namespace

EventFeed& EventFeed::instance() {
  static auto& feed = *new EventFeed;
  return feed;
}

EventFeed::EventFeed() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), watch_(*this) {}

template <EventSource Source, typename Record>
int EventFeed::forward(uint16_t code, Record* record, void* userdata) {
  FeedEvent event{Source, code, {}, {}};
  if (record != nullptr) event.record = *record;
  static_cast<EventFeed*>(userdata)->put(std::move(event));
  return 0;
}

int EventFeed::forwardJoystick(uint16_t code, void* result, void* userdata) {
  return forward<EventSource::Joystick>(code, static_cast<JoystickResult*>(result), userdata);
}

bool EventFeed::subscribe(PerixProxy& proxy) {
  watch_.Init();
  // This waits for callbacks that run; from here to the next registration none can set forgotten_.
  proxy.UnregisterCallback(kOwnKey);
  {
    const MutexLock lock(mutex_);
    forgotten_ = false;
  }
  proxy.RegisterCallback(kOwnKey, onDesktop, slotOf(kOwnKey));
  proxy.RegisterDeviceCallback(forward<EventSource::Device, CommonDevice>, this);
  proxy.RegisterPrinterCallback(forward<EventSource::Printer, PrinterDevice>, this);
  proxy.RegisterConfigNewDevResultCallback(
      forward<EventSource::Configuration, _ConfigNewDeviceResult>, this);
  proxy.RegisterCmdCallback(forward<EventSource::Command, CmdResponse>, this);
  proxy.RegisterJoystickCallback(forwardJoystick, this);
  const std::map<std::string, int> desktops = proxy.GetVmList();
  const bool answered = PerixLastFailure().failure == PerixFailure::None;
  for (const auto& [name, id] : desktops) proxy.RegisterCallback(name, onDesktop, slotOf(name));
  return answered;
}

EventFeed::DesktopSlot* EventFeed::slotOf(const std::string& name) {
  const auto found = std::find_if(desktops_.begin(), desktops_.end(),
                                  [&](const DesktopSlot& slot) { return slot.name == name; });
  return found != desktops_.end() ? &*found : &desktops_.emplace_back(DesktopSlot{this, name});
}

int EventFeed::onDesktop(uint16_t code, void* /*data*/, void* userdata) {
  const auto& slot = *static_cast<DesktopSlot*>(userdata);
  if (slot.name != kOwnKey) {
    slot.feed->put({EventSource::Desktop, code, {}, slot.name});
  } else if (code == SERVICE_DIED) {
    const MutexLock lock(slot.feed->mutex_);
    slot.feed->forgotten_ = true;
    slot.feed->wake();
  }
  return 0;
}

void EventFeed::DeathWatch::onServiceDeath() {
  ReleaseService();
  feed_.put({EventSource::Service, SERVICE_DIED, {}, {}});
}

std::deque<FeedEvent> EventFeed::take() {
  const MutexLock lock(mutex_);
  eventfd_t count;
  eventfd_read(wake_.get(), &count);
  return std::exchange(events_, {});
}

bool EventFeed::mustSubscribe() {
  const MutexLock lock(mutex_);
  return forgotten_;
}

void EventFeed::put(FeedEvent event) {
  const MutexLock lock(mutex_);
  events_.push_back(std::move(event));
  wake();
}

void EventFeed::wake() {
  eventfd_write(wake_.get(), 1);
}

}  // namespace zq::ctl
