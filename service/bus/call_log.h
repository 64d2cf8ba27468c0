// The calls that the service received, for whoever wants to know what a client really sent.
#pragma once

#include <deque>
#include <string>

#include "service/bus/json.h"
#include "zqbus/message.h"

namespace zq::devservice {

/// How much of a call's arguments may be shown.
enum class Disclosure { Everything, SizesOnly };

/// The first 32 arguments as JSON: numbers, texts up to 256 bytes, and by their size and their
/// first bytes longer texts and blocks, these in hex. Of the others their number.
Json argumentsAsJson(const ZQBusMessage& message, Disclosure disclosure);

/// The last calls, oldest first. Texts that consist of control characters alone make 52 MB of JSON
/// of them, which is the most, and which a message carries.
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
