#include "failures.h"

namespace zq {

ZQBusMessage timedOut(std::chrono::microseconds timeout) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(timeout);
  return ZQBusMessage::failed(ZQBusFailure::TimedOut,
                              "no answer within " + std::to_string(ms.count()) + " ms");
}

ZQBusMessage busGone() {
  return ZQBusMessage::failed(ZQBusFailure::BusGone,
                              "the connection to the bus was lost before the answer came");
}

ZQBusMessage peerGone(const std::string& service) {
  return ZQBusMessage::failed(ZQBusFailure::PeerGone,
                              "the service " + service + " died before it answered");
}

ZQBusMessage inherited() {
  return ZQBusMessage::failed(ZQBusFailure::Unusable, kInherited);
}

ZQBusMessage tooLarge() {
  return ZQBusMessage::failed(ZQBusFailure::TooLarge, "the call is larger than the bus carries");
}

ZQBusMessage cannotSend(const std::string& why) {
  return ZQBusMessage::failed(ZQBusFailure::Unusable, "the call cannot be sent: " + why);
}

ZQBusMessage unreadable(const std::string& why) {
  return ZQBusMessage::failed(ZQBusFailure::Unreadable,
                              "the answer of the service cannot be read: " + why);
}

}  // namespace zq
