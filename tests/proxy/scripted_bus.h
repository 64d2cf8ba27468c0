// A bus beneath the proxy that does what the test says, when the test says it. Linking it takes the
// place of the bus library's own, of the log and of the waits.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "zqbus/zqbus.h"

namespace zq {

/// What the bus does. Set before the proxy uses it; the functions run on the threads of the proxy's
/// callers.
struct BusScript {
  bool exists = true;
  std::function<bool()> isRegistered = [] { return true; };
  bool offersInterface = true;
  bool offersEvents = true;
  /// The process that owns the service's name.
  std::string owner = ":1.1";
  /// The answers of blocking calls. Look-ups of desktop ids are answered with the number at the end
  /// of the name unless `answer` is asked about them too.
  std::function<ZQBusMessage(const ZQBusMessage& call)> answer = [](const ZQBusMessage&) {
    ZQBusMessage reply;
    reply.appendInt32(0);
    return reply;
  };
  bool answersLookUps = false;
  std::function<void()> sleep = [] {};
  /// Whether the log is kept; a forked child must not, another thread may be writing.
  bool keepsLog = true;
};
BusScript& script();

/// An interface that the proxy obtained, and the functions that the bus would run for it. A test
/// may call them late, after the interface was released too.
class ScriptedService : public ZQBusProxyInterface {
 public:
  virtual std::function<void()> death() const = 0;
  virtual std::function<void()> delivery(int desktop, int kind,
                                         const std::string& payload) const = 0;
};

std::shared_ptr<ScriptedService> service();

struct SentCall {
  std::string text;  ///< as ZQBusMessage::toDebugString writes it, without "call "
  int timeoutMs;
};
struct BusHistory {
  std::vector<SentCall> calls;    ///< look-ups too
  std::vector<std::string> made;  ///< the methods of the messages, as they were made
  int attempts = 0;               ///< to find the service
  int interfaces = 0;
  int broadcasts = 0;
  int sleeps = 0;
  /// The time limits that were in force while the bus was asked, by their ends.
  std::vector<std::chrono::steady_clock::time_point> limits;
};
BusHistory history();

struct LogLine {
  std::string tag;
  std::string function;
  std::string text;
};
/// The lines since the last time.
std::vector<LogLine> takeLog();
/// How many of these lines a function wrote with that text; any function when it is "".
int linesWith(const std::vector<LogLine>& log, const std::string& function,
              const std::string& text);

}  // namespace zq
