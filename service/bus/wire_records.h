// The model's things as the byte blocks that clients receive, each of the full size of its layout
// in include/perix/records.h, zero where nothing is said. Texts that are too long are cut.
//
// The service uses what the layouts leave to it as follows (little-endian):
//   CommonDevice   2 type, 4 vid, 6 pid (16 bits each); 12 source id (64 bits)
//   configuration and joystick results   4 source id (64 bits)
//   policies   0 vid, 2 pid, 4 policy (16 bits each), 6 name (128 bytes)
#pragma once

#include <string>

#include "service/model/model.h"
#include "service/model/result.h"
#include "zqbus/message.h"

namespace zq::devservice {

ZQBusBytes deviceRecord(const Device& device);
ZQBusBytes printerRecord(const Printer& printer);
/// A printer as network printers are listed: its address in `detail`.
ZQBusBytes networkPrinterRecord(const Printer& printer);
/// The outcome of a configuration, a disk command or a joystick operation; `code` is the result in
/// words.
ZQBusBytes outcomeRecord(const Device& device, Result result);
ZQBusBytes policyRecord(VidPid id, const VidPidPolicy& policy);
ZQBusBytes progressRecord(uint64_t value, uint32_t percent, uint32_t desktop,
                          const std::string& text);
ZQBusBytes commandRecord(int32_t result, const std::string& text);
/// The 16 bytes with which a pen tablet announces itself on the pen's port. Its id there is the low
/// byte of its number, 1 when that is 0.
ZQBusBytes penAnnouncement(const Device& pen);

/// The longest text, in bytes, that the name and the detail of a device and the name of a printer
/// hold.
inline constexpr std::size_t kDeviceNameLimit = 127;
inline constexpr std::size_t kDeviceDetailLimit = 255;
inline constexpr std::size_t kPrinterNameLimit = 255;

}  // namespace zq::devservice
