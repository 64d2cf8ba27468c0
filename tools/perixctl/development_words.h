// The words that the control interface of the development service takes.
#pragma once

#include <array>

#include "tools/perixctl/service_words.h"

namespace zq::ctl {

struct FaultKind {
  const char* name;
  const char* help;
  bool needsValue;
};
inline constexpr std::array kFaultKinds = {
    FaultKind{"delay", "milliseconds before the call is handled", true},
    FaultKind{"late", "milliseconds before the answer is sent", true},
    FaultKind{"error", "an error for an answer", false},
    FaultKind{"wrong-type", "an answer of other types", false},
    FaultKind{"short-record", "bytes to which records are cut", true},
    FaultKind{"drop", "no answer", false},
    FaultKind{"flood", "events before the answer", true},
    FaultKind{"stop-reading", "milliseconds without reading the bus", true},
    FaultKind{"garbage", "bytes that are not a message; then the connection ends", true},
    FaultKind{"truncate", "bytes of an answer; then the connection ends", true},
    FaultKind{"crash", "the service kills itself", false},
};

/// How the value of a key is written into TOML.
enum class PlugValue {
  Text,
  Number,
  Switch,    ///< true or false
  Hex,       ///< USB vendor and product ids: hexadecimal digits, with or without 0x
  SourceId,  ///< a number of 64 bits, of which TOML's integers lack half
};

/// A key of a device, as 'service plug' takes it.
struct PlugKey {
  const char* name;
  PlugValue value;
  const char* help;
  Words words = {};
};
inline constexpr std::array kTruths = {Word{1, "true"}, Word{0, "false"}};
inline constexpr std::array kPlugKeys = {
    PlugKey{"name", PlugValue::Text, "its name"},
    PlugKey{"detail", PlugValue::Text, "further text"},
    PlugKey{"type", PlugValue::Text, "its type", kDeviceTypes},
    PlugKey{"vid", PlugValue::Hex, "its USB vendor id, hexadecimal"},
    PlugKey{"pid", PlugValue::Hex, "its USB product id, hexadecimal"},
    PlugKey{"policy", PlugValue::Text, "its policy", kPolicies},
    PlugKey{"devNumber", PlugValue::Number, "its number"},
    PlugKey{"sourceId", PlugValue::SourceId, "its source id"},
    PlugKey{"mounted", PlugValue::Switch, "whether the disk is mounted", kTruths},
};

}  // namespace zq::ctl
