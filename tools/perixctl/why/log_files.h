// The logs of this user's clients.
#pragma once

#include <string>

namespace zq::ctl {

/// Why the library can keep no log of this program in a directory; empty when it can.
std::string obstacleToLog(const std::string& directory);

/// The refusals of calls about a device in all logs of a directory.
struct Refusals {
  std::size_t count = 0;
  std::string last;  ///< the newest line, with the name of its file in front
};
Refusals refusalsOf(const std::string& directory, uint16_t number, uint64_t sourceId);

}  // namespace zq::ctl
