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
#include <string>
#include <vector>

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

int run(const std::string& program, const std::vector<std::string>& arguments) {
  const std::string role = arguments.empty() ? "" : arguments[0];
  if (role == "--service" && arguments.size() == 2) {
    servePeer(arguments[1], &sayReady);
    return 0;
  }
  if (role == "--client" && arguments.size() == 3) {
    obey(std::stoi(arguments[2]), *connectPeer(arguments[1]));
    return 0;
  }
  std::fprintf(stderr, "usage: %s --service NAME | --client NAME FD\n", program.c_str());
  return 2;
}

}  // namespace

std::string peerSocket(const std::string& name) {
  const char* directory = std::getenv("XDG_STATE_HOME");
  if (directory == nullptr) throw std::runtime_error("no XDG_STATE_HOME for a socket");
  return std::string(directory) + '/' + name;
}

}  // namespace zq::bench

int main(int count, char** arguments) {
  try {
    return zq::bench::run(arguments[0], {arguments + 1, arguments + count});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", arguments[0], error.what());
    return 1;
  }
}
