// A service "perix" that answers at once, in a process of its own.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

namespace zq::bench {

inline constexpr int kListRecords = 1000;
inline constexpr int kRecordSize = 1024;
inline constexpr char kDesktop[] = "6f1d2c1e-7b0a-4d64-9a53-1f3f0a0b7c11";
inline constexpr int kDesktopId = 1;
inline constexpr uint16_t kDevice = 7;

inline constexpr char kEvent[] = "perixevent";
inline constexpr int kEventKind = 4;  // a device's
using EventRecord = std::array<uint8_t, kRecordSize>;

/// The machine's monotonic clock, which all processes of a run share.
double microsecondsNow();
/// When the event with this record was sent.
double stampOf(const uint8_t* record);
/// Calls `send` for `events` records, one after the other, each stamped just before; with `apart`
/// microseconds before each, back to back when that is 0.
void sendStamped(int events, int apart, const std::function<void(const EventRecord&)>& send);

/// Claims the name on the bus of ZQBUS_ADDRESS, says so on the readiness descriptor, and answers
/// until it is killed: "connectDevice" with 0, "getVmListSize" with kDesktopId, "getDeviceList"
/// with kListRecords records of kRecordSize bytes, "doPerixCmd" ("20 300": so many events, so
/// many microseconds apart) with 0, and then sends them. Returns an exit code when it cannot.
[[nodiscard]] int runBenchService();

}  // namespace zq::bench
