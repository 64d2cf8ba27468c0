#include "client_line.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "descriptor_passing.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::chrono::milliseconds kOpenTimeout{3000};

bool isWanted() {
  const char* wish = std::getenv("ZQBUS_DIRECT");
  return wish == nullptr || std::strcmp(wish, "0") != 0;
}

/// The two ends of a socket pair.
struct SocketPair {
  ~SocketPair() {
    for (const int end : ends) {
      if (end >= 0) ::close(end);
    }
  }
  bool open() {
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0;
  }
  int ends[2] = {-1, -1};
};

/// The end of a line that has arrived on `socket`, if it is of a pair that `process` made; else
/// negative.
int takeEnd(int socket, pid_t process) {
  const int end = receiveDescriptor(socket);
  ucred maker{};
  socklen_t size = sizeof maker;
  if (end < 0 ||
      (::getsockopt(end, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0 && maker.pid == process)) {
    return end;
  }
  ::close(end);
  return -1;
}

/// Makes a connection of our end of a line, which it takes over whatever happens.
SdBus greet(int end, ClientConnection::Clock::time_point deadline) {
  sd_bus* made = nullptr;
  int result = end >= 0 ? sd_bus_new(&made) : -ENOENT;
  SdBus line(made);
  if (result >= 0) result = sd_bus_set_fd(made, end, end);
  if (result < 0) {
    if (end >= 0) ::close(end);
    return nullptr;
  }
  // Nothing of ours carries descriptors, so a message that does breaks the line.
  if (sd_bus_negotiate_fds(made, 0) < 0 || sd_bus_start(made) < 0 || waitReady(made, deadline) < 0)
    return nullptr;
  return line;
}

}  // namespace

DirectLine openDirectLine(const std::string& service, const std::string& owner,
                          DeliveryQueue& deliveries) {
  SocketPair handover;
  if (!isWanted() || !handover.open()) return {};
  const auto deadline = withinTimeLimit(ClientConnection::Clock::now() + kOpenTimeout);
  // A connection for this call alone: no other of a client's takes descriptors.
  std::string error;
  SdBus opened = openSdBus(deadline, Descriptors::Carried, error);
  if (opened == nullptr) return {};
  ClientConnection bus(std::move(opened), deliveries, ZQBusFailure::BusGone);
  if (bus.startWithoutThread() < 0) return {};
  const auto answer = bus.call({owner, servicePath(service), kDirectInterface, nullptr},
                               ZQBusMessage(ZQBusMessageType::MethodCall, kDirectOpen),
                               std::chrono::duration_cast<ClientConnection::Duration>(
                                   deadline - ClientConnection::Clock::now()),
                               {handover.ends[1], {}});
  if (answer->type() != 2) return {};
  const pid_t process = answer->readInt32(0);
  SdBus connection = greet(takeEnd(handover.ends[0], process), deadline);
  if (connection == nullptr) {
    busLog("the direct line to " + service + " was given but does not work");
    return {};
  }
  auto line =
      std::make_shared<ClientConnection>(std::move(connection), deliveries, ZQBusFailure::PeerGone);
  if (line->start() < 0) return {};
  return {std::move(line), process};
}

}  // namespace zq
