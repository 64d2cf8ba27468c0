#include "service_line.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "descriptor_passing.h"
#include "platform/zqbus/bus_log.h"

namespace zq {
namespace {

constexpr std::chrono::seconds kHandshakePatience{3};
constexpr int kSendBuffer = 96 << 10;

bool isStreamSocket(int descriptor) {
  const auto option = [descriptor](int name) {
    int value = -1;
    socklen_t size = sizeof value;
    return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
  };
  return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM;
}

/// Makes a server's end of a connection of a socket, which it takes over whatever happens.
SdBus serve(int end) {
  sd_bus* made = nullptr;
  sd_id128_t id{};
  int result = sd_id128_randomize(&id);
  if (result >= 0) result = sd_bus_new(&made);
  SdBus line(made);
  if (result >= 0) result = sd_bus_set_fd(made, end, end);
  if (result < 0) {
    ::close(end);
    return nullptr;
  }
  result = sd_bus_set_server(made, 1, id);
  // Nothing that goes over a line holds a descriptor.
  if (result >= 0) result = sd_bus_negotiate_fds(made, 0);
  if (result >= 0) result = sd_bus_set_connected_signal(made, 1);
  if (result >= 0) result = sd_bus_start(made);
  if (result < 0) return nullptr;
  // sd-bus has taken what it could get. What lies in the socket cannot be sent together any more.
  ::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  return line;
}

}  // namespace

SdBus makeLine(int handover) {
  if (!isStreamSocket(handover)) return nullptr;
  // Not the pair that the handover belongs to: what came through the bus, others may have a copy
  // of.
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    return nullptr;
  }
  const int handed = sendDescriptor(handover, ends[1]);
  ::close(ends[1]);
  if (handed >= 0) return serve(ends[0]);
  ::close(ends[0]);
  return nullptr;
}

ServiceLine::ServiceLine(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                         std::string client, Admit admit)
    : ServiceConnection(owner, std::move(object), std::move(connection), std::move(client),
                        Backlog::Bounded),
      admit_(std::move(admit)),
      patience_(ConnectionLoop::Clock::now() + kHandshakePatience) {}

/// The first message of a line is sd-bus's own: that the client has been through the handshake.
void ServiceLine::onSignal(sd_bus_message*) {
  if (greeted_) return;
  greeted_ = true;
  if (admit_()) return;
  busLog("cut the direct line to " + peer() + ": there are too many");
  cut();
}

ConnectionLoop::Clock::time_point ServiceLine::nextDeadline() const {
  return greeted_ ? ServiceConnection::nextDeadline() : patience_;
}

void ServiceLine::onDeadline(ConnectionLoop::Clock::time_point now) {
  if (greeted_) return ServiceConnection::onDeadline(now);
  busLog("cut the direct line to " + peer() + ": it is not used");
  cut();
}

}  // namespace zq
