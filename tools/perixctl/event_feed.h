// The events that the library's callbacks tell, in the order in which they told them.
#pragma once

#include <chrono>
#include <deque>
#include <list>
#include <string>
#include <variant>

#include "perix/perix_proxy.h"
#include "platform/util/mutex.h"
#include "tools/embedded/child_process.h"

namespace zq::ctl {

/// Which registry an event came through.
enum class EventSource { Device, Printer, Configuration, Command, Joystick, Desktop, Service };

struct FeedEvent {
  EventSource source;
  uint16_t code;
  /// The record, copied; nothing when the event carried none.
  std::variant<std::monostate, CommonDevice, PrinterDevice, _ConfigNewDeviceResult, CmdResponse>
      record;
  std::string desktop;  ///< the desktop whose callback was called, for EventSource::Desktop
  std::chrono::system_clock::time_point time = std::chrono::system_clock::now();
};

/// Registers every callback and queues the events that they are told. The library calls them on its
/// own thread for as long as the process lives, so there is one feed, and it is never destroyed.
class EventFeed {
 public:
  static EventFeed& instance();

  /// Registers the callbacks, with those of the desktops that the service knows now. Again after
  /// each death of the service. False when the service cannot be asked; the desktops are missing
  /// then. Not from inside a callback.
  [[nodiscard]] bool subscribe(PerixProxy& proxy);

  /// Readable while there are events to take.
  int descriptor() const { return wake_.get(); }
  /// All events so far, oldest first.
  std::deque<FeedEvent> take();
  /// Whether the library has told of the service's death, and forgotten the desktops, since the
  /// last subscribe().
  bool mustSubscribe();

 private:
  // The userdata of a desktop's callback.
  struct DesktopSlot {
    EventFeed* feed;
    std::string name;
  };

  // Hears of the service's death when it dies: the library tells its callbacks after it has come
  // back. It has a connection of its own and asks nothing.
  class DeathWatch : public PerixProxy {
   public:
    explicit DeathWatch(EventFeed& feed) : feed_(feed) {}
    void onServiceDeath() override;
    int InitBroadcast() override { return 0; }

   private:
    EventFeed& feed_;
  };

  EventFeed();
  void put(FeedEvent event);
  void wake();
  DesktopSlot* slotOf(const std::string& name);
  template <EventSource Source, typename Record>
  static int forward(uint16_t code, Record* record, void* userdata);
  static int forwardJoystick(uint16_t code, void* result, void* userdata);
  static int onDesktop(uint16_t code, void* data, void* userdata);

  OwnedDescriptor wake_;
  Mutex mutex_;
  std::deque<FeedEvent> events_ GUARDED_BY(mutex_);
  bool forgotten_ GUARDED_BY(mutex_) = false;
  std::list<DesktopSlot> desktops_;  ///< grows with each new name: old ones may still be in use
  DeathWatch watch_;
};

}  // namespace zq::ctl
