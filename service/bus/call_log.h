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

/// The first arguments as JSON, `most` of them: numbers, texts up to 256 bytes, and by their size
/// and their first bytes longer texts and blocks, these in hex. Of the others their number.
Json argumentsAsJson(const ZQBusMessage& message, Disclosure disclosure, std::size_t most = 32);

/// The last calls, oldest first. Texts that consist of control characters alone make 65 MB of JSON
/// of them, which is the most, and which a message carries.
class CallLog {
 public:
  static constexpr std::size_t kLength = 1000;

  /// Notes a call that arrives now, and returns its number.
  uint64_t note(const ZQBusMessage& message, const std::string& sender, Disclosure disclosure);
  /// Notes the answer to a call: its arguments under "answer", or a text under "error". Nothing
  /// when the call is forgotten already.
  void noteAnswer(uint64_t number, const char* member, Json answer);
  /// The call, null when it is forgotten.
  const Json* find(uint64_t number) const;
  void clear();
  Json list() const { return Json(calls_); }

 private:
  std::deque<Json> calls_;
  uint64_t first_ = 0;  ///< the number of the first of them
};

}  // namespace zq::devservice
