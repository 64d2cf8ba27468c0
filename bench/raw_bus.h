// The same service by sd-bus alone: one connection, one thread, blocking calls.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace zq::bench {

struct SdBusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using RawBus = std::unique_ptr<sd_bus, SdBusUnref>;
using RawMessage = std::unique_ptr<sd_bus_message, SdBusUnref>;

// All of these throw std::runtime_error when sd-bus or the service refuses, so that no failure is
// ever measured as a fast answer.

// The bench service as D-Bus names it.
inline constexpr char kServiceName[] = "org.zqbus.perix";
inline constexpr char kServicePath[] = "/org/zqbus/perix";
// The service by sd-bus alone has a name of its own.
inline constexpr char kRawName[] = "org.zqbus.raw";
inline constexpr char kRawPath[] = "/org/zqbus/raw";

/// Throws std::runtime_error that says `what` when `result` is an error's number.
void requireRaw(int result, const char* what);

/// Opens a connection to the bus of ZQBUS_ADDRESS.
RawBus openRawBus();
/// Opens a connection on one end of a socket pair, which it copies.
RawBus openRawEnd(int socket);
/// Asks the bus for the owner of the service's name.
void askRawOwner(sd_bus* bus);
/// "connectDevice" as the proxy makes it, of the service `name` at `path`, its result read.
void connectDeviceRaw(sd_bus* bus, const char* name = kServiceName,
                      const char* path = kServicePath);
/// "getDeviceList" as the proxy makes it, of the service `name` at `path`: the reply as it was
/// received, not decoded.
RawMessage getDeviceListRaw(sd_bus* bus, const char* name, const char* path);
/// Walks that reply and calls `onRecord` with each of its kListRecords records, where they lie.
void readDeviceListRaw(sd_bus_message* reply, const std::function<void(const void*)>& onRecord);

/// Processes one thing that arrived, or waits for one.
void processRaw(sd_bus* bus);
/// Has `onEvent` called with each event of the raw service.
void matchEventsRaw(sd_bus* bus, sd_bus_message_handler_t onEvent, void* userdata);
/// Has the raw service send events; they, and the answer, arrive in processRaw().
void requestEventsRaw(sd_bus* bus, int events, int apart);
/// The record of an event, in place.
const uint8_t* eventRecordRaw(sd_bus_message* event);

}  // namespace zq::bench
