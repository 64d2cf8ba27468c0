#include "service_line.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "descriptor_passing.h"
#include "platform/zqbus/bus_log.h"

namespace zq {
namespace {

constexpr std::chrono::seconds kHandshakeTime{3};
constexpr int kSendBuffer = 96 << 10;

bool isStreamSocket(int descriptor) {
  const auto option = [descriptor](int name) {
    int value = -1;
    socklen_t size = sizeof value;
    return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
  };
  return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM;
}

/// Makes the server side of a connection on a socket, which it takes over whatever happens.
SdBus serve(int socket) {
  sd_bus* made = nullptr;
  sd_id128_t id{};
  int result = sd_id128_randomize(&id);
  if (result >= 0) result = sd_bus_new(&made);
  SdBus line(made);
  if (result >= 0) result = sd_bus_set_fd(made, socket, socket);
  if (result < 0) {
    ::close(socket);
    return nullptr;
  }
  result = sd_bus_set_server(made, 1, id);
  // No message on a line carries a descriptor.
  if (result >= 0) result = sd_bus_negotiate_fds(made, 0);
  if (result >= 0) result = sd_bus_set_connected_signal(made, 1);
  if (result >= 0) result = sd_bus_start(made);
  if (result < 0) return nullptr;
  // sd-bus has asked for the largest buffer. A smaller buffer is better: the events for a client
  // that is behind wait in this process, where many of them become one message.
  ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  return line;
}

}  // namespace

SdBus makeLine(int handover) {
  if (!isStreamSocket(handover)) return nullptr;
  // Not the handover socket itself: it came through the bus, and a monitor of the bus may have a
  // copy of it, with which it could read along.
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    return nullptr;
  }
  const int passed = sendDescriptor(handover, ends[1]);
  ::close(ends[1]);
  if (passed >= 0) return serve(ends[0]);
  ::close(ends[0]);
  return nullptr;
}

ServiceLine::ServiceLine(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                         std::string client, Admit admit)
    : ServiceConnection(owner, std::move(object), std::move(connection), std::move(client),
                        Backlog::Bounded),
      admit_(std::move(admit)),
      handshakeDeadline_(ConnectionLoop::Clock::now() + kHandshakeTime) {
  ++this->object().lines;
}

/// sd-bus itself brings the first signal of a line: the handshake is complete.
void ServiceLine::onSignal(sd_bus_message*) {
  if (isReady_) return;
  isReady_ = true;
  if (admit_()) return;
  busLog("cut the direct line to " + peer() + ": there are too many");
  cut();
}

ConnectionLoop::Clock::time_point ServiceLine::nextDeadline() const {
  return isReady_ ? ServiceConnection::nextDeadline() : handshakeDeadline_;
}

void ServiceLine::onDeadline(ConnectionLoop::Clock::time_point now) {
  if (isReady_) return ServiceConnection::onDeadline(now);
  busLog("cut the direct line to " + peer() + ": it is not used");
  cut();
}

}  // namespace zq
