// The program of every peer:
//
//   PEER --service NAME      serves, and says so on the readiness descriptor
//   PEER --client NAME FD    makes as many calls as it is told on the socket FD, until that ends
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string_view>

#include "bench/peers/peer.h"
#include "tools/embedded/child_process.h"

namespace zq::bench {
namespace {

constexpr int32_t kDesktop = 1;
constexpr uint16_t kDevice = 7;

void sayReady() {
  if (::write(ChildProcess::kReadinessDescriptor, "ready\n", 6) != 6) std::exit(1);
}

void call(PeerClient& client) {
  if (client.connectDevice(kDesktop, kDevice) != 0) throw std::runtime_error("a wrong answer");
}

double microsecondsPerCall(PeerClient& client, PeerBatch batch) {
  using Clock = std::chrono::steady_clock;
  call(client);  // unmeasured: this process may have been asleep for long
  const auto begin = Clock::now();
  for (PeerBatch i = 0; i < batch; ++i) call(client);
  const std::chrono::duration<double, std::micro> taken = Clock::now() - begin;
  return taken.count() / batch;
}

void obey(int socket, PeerClient& client) {
  PeerBatch batch = 0;
  while (::read(socket, &batch, sizeof batch) == sizeof batch) {
    const double figure = microsecondsPerCall(client, batch);
    if (::write(socket, &figure, sizeof figure) != sizeof figure) return;
  }
}

int run(int count, char** arguments) {
  const std::string_view role = count > 2 ? arguments[1] : "";
  if (role == "--service") {
    servePeer(arguments[2], &sayReady);
    return 0;
  }
  if (role == "--client" && count > 3) {
    obey(std::atoi(arguments[3]), *connectPeer(arguments[2]));
    return 0;
  }
  std::fprintf(stderr, "usage: %s --service NAME | --client NAME FD\n", arguments[0]);
  return 2;
}

}  // namespace

std::string peerSocket(const std::string& name) {
  return std::string(std::getenv("XDG_STATE_HOME")) + '/' + name;
}

}  // namespace zq::bench

int main(int count, char** arguments) {
  try {
    return zq::bench::run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", arguments[0], error.what());
    return 1;
  }
}
