// The proxy, connected to a service in this process, whose answers the target sets.
#pragma once

#include "perix/perix_proxy.h"
#include "zqbus/message.h"

namespace zq::fuzz {

/// The only desktop that the service knows.
inline constexpr char kDesktop[] = "desktop-of-a-rather-long-name-0123456789";
inline constexpr int kDesktopId = 3;

/// The proxy, with a log in a temporary directory that goes when the process ends. One thread
/// alone may use it.
PerixProxy& connectedProxy();

/// What the service answers from now on; look-ups of ids aside.
void setReply(ZQBusMessage reply);

}  // namespace zq::fuzz
