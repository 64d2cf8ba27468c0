// A service "perix" that answers at once, in a process of its own.
#pragma once

namespace zq::bench {

inline constexpr int kListRecords = 1000;
inline constexpr int kRecordSize = 1024;
inline constexpr char kDesktop[] = "6f1d2c1e-7b0a-4d64-9a53-1f3f0a0b7c11";
inline constexpr int kDesktopId = 1;

/// Claims the name on the bus of ZQBUS_ADDRESS, says so on the readiness descriptor, and answers
/// until it is killed: "connectDevice" with 0, "getVmListSize" with kDesktopId, "getDeviceList"
/// with kListRecords records of kRecordSize bytes. Returns an exit code when it cannot.
[[nodiscard]] int runBenchService();

}  // namespace zq::bench
