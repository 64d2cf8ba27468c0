// Faults that tests inject: calls fail in the ways in which real services fail.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "service/bus/method_table.h"
#include "service/scenario/json.h"

namespace zq::devservice {

enum class FaultKind {
  Delay,
  Late,
  Error,
  WrongType,
  ShortRecord,
  Drop,
  Flood,
  StopReading,
  Garbage,
  Truncate,
  Crash,
};

/// The faults of one call.
struct FaultPlan {
  std::chrono::milliseconds delay{0};
  std::chrono::milliseconds late{0};
  std::chrono::milliseconds stopReading{0};
  int64_t flood = 0;
  bool error = false;
  bool drop = false;
  bool crash = false;
  bool wrongType = false;
  std::optional<uint32_t> recordLength;
  /// Written in place of an answer; then the connection ends.
  std::optional<std::string> lastBytes;

  /// The answer, distorted by the faults.
  Answer distort(const Answer& answer) const;
};

class Faults {
 public:
  /// The next `count` calls of `method` ("*": of any method) meet the fault; with 0, all calls
  /// until the faults are cleared. It replaces an earlier fault of that kind for the method, which
  /// must exist. Empty on success, else the reason; then nothing has changed.
  [[nodiscard]] std::string set(const std::string& method, const std::string& kind, int64_t value,
                                int32_t count);
  void clear() { faults_.clear(); }
  Json list() const;

  /// The faults of the next call of `method`, which counts from now on.
  FaultPlan take(const std::string& method);

 private:
  struct Fault {
    std::string method;
    FaultKind kind;
    int64_t value;
    int32_t remaining;  ///< 0: until cleared
  };

  std::vector<Fault> faults_;
};

}  // namespace zq::devservice
