// A recorded trace as a script for a service: the answer of each call, and the events behind it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "zqbus/trace.h"

namespace zq::devservice {

class Recording {
 public:
  /// Something that the recorded service did by itself.
  struct Happening {
    ZQBusTraceEntry::Kind kind;      ///< Event, Broadcast or Death
    std::chrono::nanoseconds delay;  ///< from the beginning of the call before it
    ZQBusMessage content;
  };
  /// One recorded call. What happened until the next call belongs to it.
  struct Step {
    ZQBusMessage call;
    ZQBusMessage reply;
    std::chrono::nanoseconds duration;
    std::vector<Happening> happenings;
    int played = 0;
  };

  /// Takes the calls of service "perix" that reached the service, and what the service sent. A
  /// trace of clients or of the service serves alike; of a trace of both the clients' entries are
  /// taken, and an event that several connections heard is taken once. What came before the first
  /// call belongs to that one. `trace` is in the order of its times.
  explicit Recording(const std::vector<ZQBusTraceEntry>& trace);

  /// The step that a call plays: the first that was not yet played of those with the same method
  /// and arguments, else the last of them. Null when there is none. A secret equals every text and
  /// block.
  Step* next(const ZQBusMessage& call);
  /// In words, the recorded call that is most like `call`.
  std::string nearest(const ZQBusMessage& call) const;
  /// One line each: the calls that were not played, and those that were played more often than
  /// they were recorded.
  std::vector<std::string> report() const;
  bool empty() const { return steps_.empty(); }

 private:
  std::vector<Step> steps_;
};

}  // namespace zq::devservice
