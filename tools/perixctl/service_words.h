// The numbers of today's service, in words.
#pragma once

#include <array>

#include "perix/events.h"
#include "perix/service_values.h"
#include "tools/perixctl/words.h"

namespace zq::ctl {

inline constexpr std::array kSwitches = {Word{0, "off"}, Word{1, "on"}};

inline constexpr std::array kDeviceTypes =
    wordsOf(DeviceType::Usb, DeviceType::Disk, DeviceType::Camera, DeviceType::Scanner,
            DeviceType::Joystick, DeviceType::Pen, DeviceType::Audio, DeviceType::SmartCard,
            DeviceType::Printer);
inline constexpr std::array kPolicies =
    wordsOf(DevicePolicy::Ask, DevicePolicy::Allow, DevicePolicy::Forbid);
inline constexpr std::array kRedirectionModes = {Word{0, "out"}, Word{1, "in"}};
inline constexpr std::array kDiskCommands = {Word{DiskCommand::Mount, "mount"},
                                             Word{DiskCommand::Unmount, "unmount"},
                                             Word{DiskCommand::Eject, "eject"}};
inline constexpr std::array kPrinterCommands = {Word{PrinterCommand::Pause, "pause"},
                                                Word{PrinterCommand::Resume, "resume"}};
inline constexpr std::array kEventKinds =
    wordsOf(EventKind::DeviceState, EventKind::DeviceRefused, EventKind::DeviceArrived,
            EventKind::DeviceRemoved, EventKind::NewDevice, EventKind::DiskMounted,
            EventKind::DiskUnmounted, EventKind::ConfiguredConnect, EventKind::ConfiguredIgnore,
            EventKind::ConfigurationFailed, EventKind::DiskCommandDone,
            EventKind::JoystickCalibrated, EventKind::CommandResponse);
inline constexpr std::array kCameraStates = {Word{0, "not authorised"}, Word{1, "authorised"}};

}  // namespace zq::ctl
