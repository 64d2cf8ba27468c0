// The words that scenarios and answers use for the model's enumerations.
#pragma once

#include <array>
#include <string_view>

#include "service/model/model.h"

namespace zq::devservice {

template <typename Value>
struct Word {
  std::string_view word;
  Value value;
};

inline constexpr std::array kDeviceTypeWords = {
    Word<DeviceType>{"usb", DeviceType::Usb},
    Word<DeviceType>{"disk", DeviceType::Disk},
    Word<DeviceType>{"camera", DeviceType::Camera},
    Word<DeviceType>{"scanner", DeviceType::Scanner},
    Word<DeviceType>{"joystick", DeviceType::Joystick},
    Word<DeviceType>{"pen", DeviceType::Pen},
    Word<DeviceType>{"audio", DeviceType::Audio},
    Word<DeviceType>{"smartcard", DeviceType::SmartCard},
    Word<DeviceType>{"printer", DeviceType::Printer},
};

inline constexpr std::array kDeviceStatusWords = {
    Word<DeviceStatus>{"idle", DeviceStatus::Idle},
    Word<DeviceStatus>{"waiting", DeviceStatus::Waiting},
    Word<DeviceStatus>{"connected", DeviceStatus::Connected},
    Word<DeviceStatus>{"ignored", DeviceStatus::Ignored},
};

inline constexpr std::array kPolicyWords = {
    Word<DevicePolicy>{"ask", DevicePolicy::Ask},
    Word<DevicePolicy>{"allow", DevicePolicy::Allow},
    Word<DevicePolicy>{"forbid", DevicePolicy::Forbid},
};

inline constexpr std::array kPrinterStatusWords = {
    Word<PrinterStatus>{"idle", PrinterStatus::Idle},
    Word<PrinterStatus>{"paused", PrinterStatus::Paused},
    Word<PrinterStatus>{"connected", PrinterStatus::Connected},
    Word<PrinterStatus>{"printing", PrinterStatus::Printing},
};

inline constexpr std::array kPrinterOriginWords = {
    Word<PrinterOrigin>{"local", PrinterOrigin::Local},
    Word<PrinterOrigin>{"network", PrinterOrigin::Network},
    Word<PrinterOrigin>{"shared", PrinterOrigin::Shared},
};

/// The word for a value of the table.
template <typename Value, std::size_t N>
constexpr std::string_view wordFor(const std::array<Word<Value>, N>& words, Value value) {
  for (const auto& [word, candidate] : words) {
    if (candidate == value) return word;
  }
  return "unknown";
}

}  // namespace zq::devservice
