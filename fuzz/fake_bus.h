// A bus beneath the proxy that has one service, in this process, whose answers the target sets.
// Linking it takes the place of the real one.
#pragma once

#include <string>

#include "perix/perix_proxy.h"
#include "zqbus/zqbus.h"

namespace zq::fuzz {

/// The only desktop that the service knows.
inline constexpr char kDesktop[] = "desktop-of-a-rather-long-name-0123456789";
inline constexpr int kDesktopId = 3;

/// The proxy, connected to the fake service, with a log in a temporary directory that goes when
/// the process ends. Single-threaded, as everything here.
PerixProxy& connectedProxy();

/// What the service answers from now on; look-ups of ids aside.
void setReply(ZQBusMessage reply);

}  // namespace zq::fuzz
