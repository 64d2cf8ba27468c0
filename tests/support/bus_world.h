// What the tests stand on: a private bus for this process, services on it, and things to wait for.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/messages.h"
#include "tools/embedded/private_bus.h"
#include "zqbus/zqbus_service.h"

namespace zq {

/// How long a test waits for what must happen; only a broken one ever waits so long.
inline constexpr std::chrono::seconds kPatience{30};

/// The bus of this process, up from the first test to the last; ZQBUS_ADDRESS names it, and
/// XDG_STATE_HOME a directory of this process alone.
PrivateBus& testBus();
/// What this process logged so far.
std::string logText();
/// Whether services are reached over direct lines; ZQBUS_DIRECT says so.
bool usesDirectLines();

/// A value that one thread sets under a lock and another waits for.
template <typename T>
class Watched {
 public:
  template <typename Change>
  void change(Change change) {
    // Notified under the lock: who waits may destroy this as soon as it has seen the change.
    const std::lock_guard lock(mutex_);
    change(value_);
    changed_.notify_all();
  }
  /// Waits until `condition` holds for the value; false when it does not come to that.
  template <typename Condition>
  [[nodiscard]] bool wait(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return condition(value_); });
  }
  T get() {
    const std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_{};
};

/// A service "perix" in this process that writes down what it is asked, in the words of
/// ZQBusMessage::toDebugString without the leading "call", and answers as the test says.
class RecordingService {
 public:
  using Handler = std::function<void(const std::shared_ptr<ZQBusCall>&)>;

  RecordingService();
  /// The name is free when this returns.
  ~RecordingService();
  RecordingService(const RecordingService&) = delete;
  RecordingService& operator=(const RecordingService&) = delete;

  /// How calls are answered from now on. By default with int32 0.
  void answerWith(Handler handler);
  void answerWith(const ZQBusMessage& reply);
  /// What was asked since the last time, look-ups of desktop ids aside: those are answered with
  /// the number at the end of the name ("desk-3"), 0 without one, and counted.
  std::vector<std::string> takeCalls();
  int idLookups();

  ZQBusService& bus() { return *service_; }
  void sendEvent(int desktop, int kind);
  void sendEvent(int desktop, int kind, const void* payload, std::size_t size);

 private:
  struct State {
    Handler handler;
    std::vector<std::string> calls;
    int lookups = 0;
  };
  void handle(const std::shared_ptr<ZQBusCall>& call);

  Watched<State> state_;
  std::unique_ptr<ZQBusService> service_;
};

/// The development service in a process of its own.
std::unique_ptr<ChildProcess> startService();
/// Has the development service do something; the JSON document it answers.
std::string control(const std::string& method, const ZQBusMessage& arguments);

/// Open descriptors, and resident memory in KiB, of this process. Sanitizers keep what was freed,
/// so under them the memory says nothing and is 0.
int openDescriptors();
long residentKib();

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace zq
