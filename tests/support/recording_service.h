// A service "perix" in the test's own process, on whichever bus the test is linked with, and the
// log of that process.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "tests/support/messages.h"
#include "tests/support/watched.h"
#include "zqbus/zqbus_service.h"

namespace zq {

/// Writes down what it is asked, in the words of ZQBusMessage::toDebugString without the leading
/// "call", and answers as the test says.
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
  void answerWith(const ZQBusMessage& reply) {
    answerWith([reply](const std::shared_ptr<ZQBusCall>& call) { call->reply(reply); });
  }
  /// What was asked since the last time, look-ups of desktop ids aside: those are answered with
  /// the number at the end of the name ("desk-3"), 0 without one, and counted.
  std::vector<std::string> takeCalls();
  int idLookups() { return state_.get().lookups; }

  ZQBusService& bus() { return *service_; }
  /// Sends an event, with a payload if there is one.
  template <typename... Payload>
  void sendEvent(int desktop, int kind, const Payload&... payload) {
    service_->sendEvent("perixevent", message(int32_t{desktop}, int32_t{kind}, bytes(payload)...));
  }

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

/// What this process logged so far. XDG_STATE_HOME names a directory of this process alone.
std::string logText();

}  // namespace zq
