#include "bench/far_end.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "bench/raw_service.h"

namespace zq::bench {
namespace {

using Packet = std::array<char, 64>;

void echo(int socket) {
  Packet packet;
  while (::recv(socket, packet.data(), packet.size(), MSG_WAITALL) == sizeof packet &&
         ::write(socket, packet.data(), packet.size()) == sizeof packet) {
  }
}

}  // namespace

FarEnd::FarEnd(void (*serve)(int socket)) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
    throw std::runtime_error("socketpair failed");
  }
  socket_ = OwnedDescriptor(ends[0]);
  const OwnedDescriptor theirs(ends[1]);
  child_ = ::fork();
  if (child_ != 0) return;
  socket_.reset();
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  serve(theirs.get());
  ::_exit(0);
}

FarEnd::~FarEnd() {
  socket_.reset();  // which the child sees as the end
  ::waitpid(child_, nullptr, 0);
}

EchoProcess::EchoProcess() : end_(&echo) {}

void EchoProcess::pingPong() const {
  Packet packet{};
  if (::write(end_.socket(), packet.data(), packet.size()) != sizeof packet ||
      ::recv(end_.socket(), packet.data(), packet.size(), MSG_WAITALL) != sizeof packet) {
    throw std::runtime_error("the echo process has gone");
  }
}

RawPair::RawPair() : end_(&serveRawEnd), bus_(openRawEnd(end_.socket())) {}

}  // namespace zq::bench
