// Connecting to the bus, and the names of the objects on it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "sd_bus_handles.h"

namespace zq {

/// Whether messages on a connection may carry descriptors. sd-bus (252) never closes those of a
/// message that it cannot parse, so a peer could exhaust this process's descriptors.
enum class Descriptors { Refused, Carried };

/// The address of the bus: ZQBUS_ADDRESS, or that of the user's session bus without it. Empty when
/// the environment names no bus.
std::string busAddress();
/// The same, and the variable of the environment that it comes from.
std::string busAddress(std::string& variable);

/// Connects to the bus at busAddress() and waits for its Hello, until `deadline` at most. Null,
/// `error` in words with the address, when that fails.
SdBus openSdBus(std::chrono::steady_clock::time_point deadline, Descriptors descriptors,
                std::string& error);

/// Runs a connection, which no other thread uses yet, until it is ready. 0, or a negative error
/// number.
[[nodiscard]] int waitReady(sd_bus* connection, std::chrono::steady_clock::time_point deadline);

/// Whether the bus daemon sent a message. Only on a connection to a bus, which stamps the sender.
bool isFromBus(sd_bus_message* message);

/// Logs the bus's answer to a subscription if it is an error.
void logRefusal(sd_bus_message* answer);

/// This process's user as the bus knows it: behind a bridge to another machine, the user there.
uid_t userOn(sd_bus* bus, std::chrono::steady_clock::time_point deadline);

/// A call of the bus daemon with one text as its argument, and with `flags` where the method takes
/// them; null without memory.
SdBusMessage newBusCall(sd_bus* bus, const char* method, const char* argument,
                        std::optional<uint32_t> flags = std::nullopt);

/// The D-Bus name and interface of a service.
std::string serviceName(const std::string& service);
/// The path of a service's object.
std::string servicePath(const std::string& service);

inline constexpr char kBusName[] = "org.freedesktop.DBus";
inline constexpr char kBusPath[] = "/org/freedesktop/DBus";
inline constexpr char kBroadcastInterface[] = "org.zqbus.Broadcast";
inline constexpr char kBroadcastPath[] = "/org/zqbus/Broadcast";
inline constexpr char kDirectInterface[] = "org.zqbus.Direct";
inline constexpr char kDirectOpen[] = "Open";
inline constexpr char kDirectListen[] = "Listen";
inline constexpr char kDirectEvents[] = "Events";
/// A service's reasons to open no line for now.
inline constexpr char kNoLine[] = "no direct line";
inline constexpr char kTooManyChecks[] = "too many senders are being checked";
inline constexpr char kErrorName[] = "org.zqbus.Error.Failed";
}  // namespace zq
