// The records that clients receive, made from the model. Each has the full size of its
// layout in include/perix and is zero where the model has nothing to say. Texts that are too long
// are cut.
#pragma once

#include <string>

#include "service/model/model.h"
#include "zqbus/message.h"

namespace zq::devservice {

ZQBusBytes deviceRecord(const Device& device);
ZQBusBytes printerRecord(const Printer& printer);
/// A printer in the list of network printers; `detail` holds its address.
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

}  // namespace zq::devservice
