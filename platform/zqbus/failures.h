// The failures that this library reports, in words.
#pragma once

#include <chrono>
#include <string>

#include "zqbus/message.h"

namespace zq {

/// Of a connection in a forked child.
inline constexpr char kInherited[] = "the connection belongs to the process that forked this one";

ZQBusMessage timedOut(std::chrono::microseconds timeout);
ZQBusMessage busGone();
/// `service` is the receiver of the call.
ZQBusMessage peerGone(const std::string& service);
ZQBusMessage inherited();
ZQBusMessage tooLarge();
ZQBusMessage cannotSend(const std::string& why);
ZQBusMessage unreadable(const std::string& why);

}  // namespace zq
