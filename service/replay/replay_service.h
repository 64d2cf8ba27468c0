// A service that does again what a trace recorded.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/util/mutex.h"
#include "service/model/scheduler.h"
#include "service/replay/recording.h"
#include "zqbus/zqbus_service.h"

namespace zq::devservice {

/// Owns the name "perix" from start() to its destruction. Answers each call with the recorded
/// reply, after the recorded time, and sends the recorded events at their distance from the calls,
/// both divided by `speed`; at once when that is 0. A call that the recording does not hold gets an
/// error that names the nearest recorded one. A recorded time-out stays unanswered, and at a
/// recorded death the name is given back and claimed anew.
class ReplayService {
 public:
  ReplayService(Recording recording, double speed);
  ~ReplayService();
  ReplayService(const ReplayService&) = delete;
  ReplayService& operator=(const ReplayService&) = delete;

  /// False with the reason in `error` when the name cannot be had.
  [[nodiscard]] bool start(std::string& error);
  /// One line for each difference between the recording and what was played.
  std::vector<std::string> report();

 private:
  void onCall(const std::shared_ptr<ZQBusCall>& call);
  void answer(const std::shared_ptr<ZQBusCall>& call, const Recording::Step& step);
  void play(const Recording::Happening& happening);
  void restart();
  std::chrono::milliseconds scaled(std::chrono::nanoseconds time) const;

  const double speed_;
  Mutex mutex_;
  Recording recording_ GUARDED_BY(mutex_);
  std::vector<std::string> unknown_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<ZQBusCall>> unanswered_ GUARDED_BY(mutex_);
  std::shared_ptr<ZQBusService> service_ GUARDED_BY(mutex_);
  Scheduler scheduler_;
};

}  // namespace zq::devservice
