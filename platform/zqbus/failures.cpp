#include "failures.h"

namespace zq {

ZQBusMessage timedOut(std::chrono::microseconds timeout) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(timeout);
  return ZQBusMessage::failed(ZQBusFailure::TimedOut,
                              "timed out after " + std::to_string(ms.count()) + " ms");
}

ZQBusMessage busGone() {
  return ZQBusMessage::failed(ZQBusFailure::BusGone, "the connection to the bus is lost");
}

ZQBusMessage peerGone(const std::string& service) {
  return ZQBusMessage::failed(ZQBusFailure::PeerGone, service + " has left the bus");
}

ZQBusMessage inherited() {
  return ZQBusMessage::failed(ZQBusFailure::Unusable,
                              "the connection belongs to the process that forked this one");
}

ZQBusMessage tooLarge() {
  return ZQBusMessage::failed(ZQBusFailure::TooLarge, "too large for the bus");
}

ZQBusMessage cannotSend(const std::string& why) {
  return ZQBusMessage::failed(ZQBusFailure::Unusable, "cannot send: " + why);
}

ZQBusMessage unreadable(const std::string& why) {
  return ZQBusMessage::failed(ZQBusFailure::Unreadable,
                              "the service answered, but the answer cannot be read: " + why);
}

}  // namespace zq
