// The cells of the matrix: an operation, a fault that the service has meanwhile, and the setting in
// which both meet.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/proxy/wire_table.h"

namespace zq::chaos {

/// How the callers of a faulty method end.
enum class Effect {
  Answered,  ///< as without the fault
  Refused,
  Odd,  ///< by an answer that cannot be read
  TimedOut,
  Gone,  ///< the connection or the service ends
};

/// A fault of the development service. Its value is drawn from `least` to `most`.
struct Fault {
  const char* kind;
  Effect effect;
  int64_t least = 0;
  int64_t most = 0;
};

inline constexpr std::array kFaults = {
    Fault{"delay", Effect::Answered, 1, 100},
    Fault{"late", Effect::Answered, 1, 100},
    Fault{"error", Effect::Refused},
    Fault{"wrong-type", Effect::Odd},
    Fault{"short-record", Effect::Answered, 2, 64},  // rows show two bytes of a record
    Fault{"drop", Effect::TimedOut},
    Fault{"flood", Effect::Answered, 1, 200},
    Fault{"stop-reading", Effect::Answered, 1, 100},
    Fault{"garbage", Effect::Gone, 0, 300},
    Fault{"truncate", Effect::Gone, 0, 95},
    Fault{"crash", Effect::Gone},
};
inline constexpr std::array kWays = {"direct", "broker"};
inline constexpr std::array kBrokers = {"dbus-daemon", "dbus-broker"};
inline constexpr std::array kThreads = {1, 8};

/// All of a cell but its operation.
struct Setting {
  Fault fault;
  std::string way;
  std::string broker;
  int threads;

  /// "garbage/direct/dbus-daemon/8"
  std::string name() const;
};

std::vector<Setting> allSettings();
/// Nothing when there is no setting of that name.
std::optional<Setting> settingOf(const std::string& name);

/// The operations: each row of the wire table that sends another call than the rows before it.
std::vector<NamedWireRow> allOperations();

/// A number for everything that is drawn in one cell.
uint32_t seedOf(const std::string& cell, uint32_t seed);

}  // namespace zq::chaos
