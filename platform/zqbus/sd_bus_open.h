// Connecting to the bus, and the names of things on it.
#pragma once

#include <chrono>
#include <string>

#include "sd_bus_handles.h"

namespace zq {

/// Connects to the bus of ZQBUS_ADDRESS, or to the user's session bus without it, and waits until
/// it has taken us in, until `deadline` at most. Null, `error` in words, when that fails.
SdBus openSdBus(std::chrono::steady_clock::time_point deadline, std::string& error);

/// The D-Bus name and interface of a service.
std::string serviceName(const std::string& service);
/// The object on which a service is.
std::string servicePath(const std::string& service);

inline constexpr char kBroadcastInterface[] = "org.zqbus.Broadcast";
inline constexpr char kBroadcastPath[] = "/org/zqbus/Broadcast";
inline constexpr char kErrorName[] = "org.zqbus.Error.Failed";
/// What a time-out of -1 stands for.
inline constexpr std::chrono::seconds kDefaultTimeout{25};

}  // namespace zq
