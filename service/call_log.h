// The calls that the service received, for whoever wants to know what a client really sent.
#pragma once

#include <deque>
#include <string>

#include "service/json.h"
#include "zqbus/message.h"

namespace zq::devservice {

/// How much of a call's arguments may be shown.
enum class Disclosure { Everything, SizesOnly };

/// The arguments as JSON: numbers, texts, and blocks by their size and first bytes in hex.
Json argumentsAsJson(const ZQBusMessage& message, Disclosure disclosure);

/// The last calls, oldest first.
class CallLog {
 public:
  static constexpr std::size_t kLength = 1000;

  /// Returns what was noted.
  const Json& note(const ZQBusMessage& message, const std::string& sender, Disclosure disclosure);
  void clear() { calls_.clear(); }
  Json list() const { return Json(calls_); }

 private:
  std::deque<Json> calls_;
};

}  // namespace zq::devservice
