#include "service/model/result.h"

#include <array>

namespace zq::devservice {
namespace {

constexpr std::array kWords = {
    "done",
    "unknown desktop",
    "unknown device",
    "the desktop is not connected",
    "already connected to this desktop",
    "connected to another desktop",
    "not connected to this desktop",
    "forbidden by the device's policy",
    "invalid argument",
    "exists already",
    "the device does not wait for its configuration",
    "not a disk",
    "unknown printer",
    "unknown driver",
    "unknown pipe",
    "host not found",
    "stopped",
    "nothing to stop",
    "unknown test",
    "unknown command",
    "the device is of another type",
    "not mounted",
    "no device number is free",
    "busy",
    "the print server does not answer",
    "the print server refused",
};
static_assert(kWords.size() == static_cast<std::size_t>(Result::PrintServerRefused) + 1);

}  // namespace

const char* inWords(Result result) {
  const auto index = static_cast<std::size_t>(result);
  return index < kWords.size() ? kWords[index] : "unknown result";
}

}  // namespace zq::devservice
