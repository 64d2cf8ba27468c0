#include "bench/echo_process.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

namespace zq::bench {
namespace {

using Packet = std::array<char, 64>;

[[noreturn]] void echo(int socket) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Packet packet;
  while (::recv(socket, packet.data(), packet.size(), MSG_WAITALL) == sizeof packet &&
         ::write(socket, packet.data(), packet.size()) == sizeof packet) {
  }
  ::_exit(0);
}

}  // namespace

EchoProcess::EchoProcess() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
    throw std::runtime_error("socketpair failed");
  }
  socket_ = OwnedDescriptor(ends[0]);
  const OwnedDescriptor theirs(ends[1]);
  child_ = ::fork();
  if (child_ != 0) return;
  socket_.reset();
  echo(theirs.get());
}

EchoProcess::~EchoProcess() {
  socket_.reset();  // which the child sees as the end
  ::waitpid(child_, nullptr, 0);
}

void EchoProcess::pingPong() const {
  Packet packet{};
  if (::write(socket_.get(), packet.data(), packet.size()) != sizeof packet ||
      ::recv(socket_.get(), packet.data(), packet.size(), MSG_WAITALL) != sizeof packet) {
    throw std::runtime_error("the echo process has gone");
  }
}

}  // namespace zq::bench
