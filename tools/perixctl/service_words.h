// The numbers of today's service, in words.
#pragma once

#include <array>

#include "perix/service_values.h"
#include "tools/perixctl/words.h"

namespace zq::ctl {

inline constexpr std::array kSwitches = {Word{0, "off"}, Word{1, "on"}};

inline constexpr std::array kDeviceTypes =
    wordsOf(DeviceType::Usb, DeviceType::Disk, DeviceType::Camera, DeviceType::Scanner,
            DeviceType::Joystick, DeviceType::Pen, DeviceType::Audio, DeviceType::SmartCard,
            DeviceType::Printer);
/// As the service takes them with a configuration, where 0 leaves the type as it is.
inline constexpr std::array kConfiguredTypes = {
    Word{0, "own"},      Word{1, "usb"}, Word{2, "disk"},  Word{3, "camera"},    Word{4, "scanner"},
    Word{5, "joystick"}, Word{6, "pen"}, Word{7, "audio"}, Word{8, "smartcard"}, Word{9, "printer"},
};
inline constexpr std::array kPolicies =
    wordsOf(DevicePolicy::Ask, DevicePolicy::Allow, DevicePolicy::Forbid);
inline constexpr std::array kRedirectionModes = {Word{0, "out"}, Word{1, "in"}};
inline constexpr std::array kDiskCommands = {Word{1, "mount"}, Word{2, "unmount"},
                                             Word{3, "eject"}};
inline constexpr std::array kPrinterCommands = {Word{1, "pause"}, Word{2, "resume"}};
inline constexpr std::array kCameraStates = {Word{0, "not authorised"}, Word{1, "authorised"}};
/// There is one property for each vendor and product today, and its number does not count.
inline constexpr std::array kProperties = {Word{0, "value"}};

}  // namespace zq::ctl
