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

bool isEnabled() {
  const char* setting = std::getenv("ZQBUS_DIRECT");
  return setting == nullptr || std::strcmp(setting, "0") != 0;
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

/// The socket of the line, which has arrived on `handover`, if `process` made its pair; else
/// negative.
int receiveLine(int handover, pid_t process) {
  const int line = receiveDescriptor(handover);
  ucred maker{};
  socklen_t size = sizeof maker;
  if (line < 0 ||
      (::getsockopt(line, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0 && maker.pid == process)) {
    return line;
  }
  ::close(line);
  return -1;
}

/// Makes a connection on a line's socket, which it takes over whatever happens.
SdBus handshake(int socket, ClientConnection::Clock::time_point deadline) {
  sd_bus* made = nullptr;
  int result = socket >= 0 ? sd_bus_new(&made) : -ENOENT;
  SdBus line(made);
  if (result >= 0) result = sd_bus_set_fd(made, socket, socket);
  if (result < 0) {
    if (socket >= 0) ::close(socket);
    return nullptr;
  }
  // No message on a line carries a descriptor; one that does ends the line.
  if (sd_bus_negotiate_fds(made, 0) < 0 || sd_bus_start(made) < 0 || waitReady(made, deadline) < 0)
    return nullptr;
  return line;
}

/// Whether a service that has lines gave this answer. Other services, and services that do not
/// answer, know nothing of lines.
bool isRefusal(const ZQBusMessage& answer) {
  std::string text;
  answer.readString(text, 0);
  return answer.failure() == ZQBusFailure::Service &&
         (text.starts_with(kNoLine) || text == kTooManyChecks);
}

}  // namespace

DirectLine openDirectLine(const std::string& service, const std::string& owner,
                          DeliveryQueue& deliveries) {
  SocketPair handover;
  if (!isEnabled() || !handover.open()) return {};
  const auto deadline = withinTimeLimit(ClientConnection::Clock::now() + kOpenTimeout);
  // A connection for this call alone: the client's other connections carry no descriptors.
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
  if (answer->type() != 2) return {.isRefused = isRefusal(*answer)};
  const pid_t process = answer->readInt32(0);
  SdBus connection = handshake(receiveLine(handover.ends[0], process), deadline);
  if (connection == nullptr) {
    busLog("the direct line to " + service + " was given but does not work");
    return {};
  }
  auto line =
      std::make_shared<ClientConnection>(std::move(connection), deliveries, ZQBusFailure::PeerGone);
  if (line->start() < 0) return {};
  return {.connection = std::move(line), .process = process};
}

}  // namespace zq
