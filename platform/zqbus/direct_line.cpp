#include "direct_line.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "bus_log.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::chrono::milliseconds kOpenTimeout{3000};

bool isWanted() {
  const char* wish = std::getenv("ZQBUS_DIRECT");
  return wish == nullptr || std::strcmp(wish, "0") != 0;
}

/// Makes a connection of our end and greets the other, which takes over `end` whatever happens.
SdBus greet(int end, Channel::Clock::time_point deadline) {
  sd_bus* made = nullptr;
  int result = sd_bus_new(&made);
  SdBus line(made);
  if (result >= 0) result = sd_bus_set_fd(made, end, end);
  if (result < 0) {
    ::close(end);
    return nullptr;
  }
  if (sd_bus_start(made) < 0 || waitReady(made, deadline) < 0) return nullptr;
  return line;
}

}  // namespace

std::shared_ptr<Channel> openDirectLine(Channel& bus, const std::shared_ptr<Peer>& peer,
                                        DeliveryQueue& deliveries) {
  int ends[2];
  if (!isWanted() ||
      ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    return nullptr;
  }
  const auto deadline = Channel::Clock::now() + kOpenTimeout;
  const auto answer = bus.call({peer->owner, servicePath(peer->service), kDirectInterface, peer},
                               ZQBusMessage(ZQBusMessageType::MethodCall, kDirectOpen),
                               static_cast<int>(kOpenTimeout.count()), ends[1]);
  ::close(ends[1]);
  if (answer->type() != 2) {
    ::close(ends[0]);
    return nullptr;
  }
  SdBus connection = greet(ends[0], deadline);
  if (connection == nullptr) {
    busLog("the direct line to " + peer->service + " was given but does not work");
    return nullptr;
  }
  auto line = std::make_shared<Channel>(std::move(connection), deliveries, ZQBusFailure::PeerGone);
  line->start();
  return line;
}

}  // namespace zq
