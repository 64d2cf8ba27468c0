// The calls that the service received, and its answers.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "service/scenario/json.h"
#include "zqbus/message.h"

namespace zq::devservice {

/// How much of a call's arguments may be shown.
enum class Disclosure { Everything, SizesOnly };

/// The first `most` arguments as JSON. Numbers and texts of up to 256 bytes stand there whole,
/// longer texts and blocks with their size and first bytes, blocks in hex. Behind them stands how
/// many more arguments there are.
Json argumentsAsJson(const ZQBusMessage& message, Disclosure disclosure, std::size_t most = 32);

/// The last calls, oldest first. With the answers the list is 65 MB of JSON at most (when all texts
/// consist of control characters), and a message carries that.
class CallLog {
 public:
  static constexpr std::size_t kLength = 1000;

  /// Notes a call that arrives now, and returns its number.
  uint64_t note(const ZQBusMessage& message, const std::string& sender, Disclosure disclosure);
  /// Notes the answer to a call: its arguments under "answer", or a text under "error". Does
  /// nothing when the call is forgotten already.
  void noteAnswer(uint64_t number, const char* member, Json answer);
  /// The call, null when it is forgotten.
  const Json* find(uint64_t number) const;
  void clear();
  Json list() const { return Json(calls_); }
  /// The calls of `method` that have an answer or an error.
  Json answered(const std::string& method) const;

 private:
  std::deque<Json> calls_;
  uint64_t first_ = 0;  ///< the number of the first call
};

}  // namespace zq::devservice
