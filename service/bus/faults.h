// Faults that tests inject: calls that go wrong in ways that real services do.
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
  Crash,
};

/// All that is to go wrong with one call.
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

  /// The answer as the faults make it.
  Answer distort(const Answer& answer) const;
};

class Faults {
 public:
  /// The next `count` calls of `method` ("*": of any) meet the fault; 0: all calls until cleared.
  /// Empty when that is done, else what was wrong, nothing being changed then. `method` exists.
  [[nodiscard]] std::string set(const std::string& method, const std::string& kind, int64_t value,
                                int32_t count);
  void clear() { faults_.clear(); }
  Json list() const;

  /// What the next call of `method` meets; counts it.
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
