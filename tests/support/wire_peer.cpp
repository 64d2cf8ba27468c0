#include "tests/support/wire_peer.h"

#include <fcntl.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace zq::wire {
namespace {

constexpr timeval kPatience{30, 0};
constexpr std::size_t kMostDescriptors = 253;

std::string hexOfUser() {
  std::string hex;
  for (const char digit : std::to_string(::geteuid())) (hex += '3') += digit;
  return hex;
}

}  // namespace

Peer::Peer(OwnedDescriptor socket) : socket_(std::move(socket)) {
  ::fcntl(socket_.get(), F_SETFL, 0);  // blocking, whatever whoever made it wanted
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
}

Peer Peer::dial(const std::string& address) {
  const std::string path = address.substr(std::strlen("unix:path="));
  sockaddr_un to{AF_UNIX, {}};
  path.copy(to.sun_path, sizeof to.sun_path - 1);
  OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
    throw std::runtime_error("cannot connect to " + address);
  }
  return Peer(std::move(socket));
}

Peer Peer::onBus(const std::string& address) {
  Peer peer = dial(address);
  const auto answer = peer.greet() ? peer.ask(Message::call("/", kDaemon, "Hello").to(kDaemon))
                                   : std::optional<Message>();
  if (!answer) throw std::runtime_error("no welcome on the bus");
  peer.name_ = answer->body.substr(4, answer->body.size() - 5);
  return peer;
}

bool Peer::greet() {
  using namespace std::string_literals;
  if (!send("\0AUTH EXTERNAL "s + hexOfUser() + "\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n")) return false;
  const auto accepted = receiveLine();
  const auto descriptors = receiveLine();
  // A line agrees to no descriptors.
  return accepted && accepted->starts_with("OK ") && descriptors;
}

bool Peer::welcome() {
  if (!fill(1)) return false;
  received_.erase(0, 1);  // the NUL in front
  for (auto line = receiveLine(); line; line = receiveLine()) {
    if (line == "BEGIN") return true;
    const char* answer = line == "AUTH EXTERNAL"       ? "DATA\r\n"
                         : line == "NEGOTIATE_UNIX_FD" ? "AGREE_UNIX_FD\r\n"
                         : line->starts_with("AUTH EXTERNAL ") || line->starts_with("DATA")
                             ? "OK 00112233445566778899aabbccddeeff\r\n"
                             : "REJECTED EXTERNAL\r\n";
    if (!send(std::string_view(answer))) return false;
  }
  return false;
}

std::optional<std::string> Peer::receiveLine() {
  std::size_t end = 0;
  while ((end = received_.find("\r\n")) == std::string::npos) {
    if (!fill(received_.size() + 1)) return std::nullopt;
  }
  std::string line = received_.substr(0, end);
  received_.erase(0, end + 2);
  return line;
}

bool Peer::send(std::string_view bytes, std::span<const int> descriptors) {
  alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))] = {};
  while (!bytes.empty()) {
    iovec content{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr header{};
    header.msg_iov = &content;
    header.msg_iovlen = 1;
    if (!descriptors.empty()) {
      header.msg_control = control;
      header.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
      cmsghdr* const part = CMSG_FIRSTHDR(&header);
      part->cmsg_level = SOL_SOCKET;
      part->cmsg_type = SCM_RIGHTS;
      part->cmsg_len = CMSG_LEN(descriptors.size_bytes());
      std::memcpy(CMSG_DATA(part), descriptors.data(), descriptors.size_bytes());
    }
    const ssize_t sent = TEMP_FAILURE_RETRY(::sendmsg(socket_.get(), &header, MSG_NOSIGNAL));
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
    descriptors = {};
  }
  return true;
}

std::optional<Message> Peer::ask(Message call, std::span<const int> descriptors) {
  call.serial = ++serial_;
  if (!send(call, descriptors)) return std::nullopt;
  return receiveUntil([&](const Message& message) { return message.replySerial == call.serial; });
}

/// Receives until at least `size` bytes are there. False at the connection's end.
bool Peer::fill(std::size_t size) {
  alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))];
  while (received_.size() < size) {
    char bytes[65536];
    iovec content{bytes, sizeof bytes};
    msghdr header{};
    header.msg_iov = &content;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    // A signal ends a call that has a time-out; the timer of a fuzzer sends signals.
    const ssize_t count = TEMP_FAILURE_RETRY(::recvmsg(socket_.get(), &header, MSG_CMSG_CLOEXEC));
    if (count <= 0) return false;
    received_.append(bytes, static_cast<std::size_t>(count));
    for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
         part = CMSG_NXTHDR(&header, part)) {
      std::vector<int> came((part->cmsg_len - CMSG_LEN(0)) / sizeof(int));
      std::memcpy(came.data(), CMSG_DATA(part), came.size() * sizeof(int));
      for (const int descriptor : came) descriptors_.emplace_back(descriptor);
    }
  }
  return true;
}

std::optional<Message> Peer::receive() {
  if (!fill(kFixedHeader)) return std::nullopt;
  const std::size_t size = sizeOf(received_);
  if (!fill(size)) return std::nullopt;
  Message message = parse(std::string_view(received_).substr(0, size));
  received_.erase(0, size);
  return message;
}

std::optional<Message> Peer::receiveUntil(const std::function<bool(const Message&)>& wanted) {
  auto message = receive();
  while (message && !wanted(*message)) message = receive();
  return message;
}

OwnedDescriptor Peer::takeDescriptor() {
  if (descriptors_.empty() && !fill(received_.size() + 1)) return OwnedDescriptor();
  if (descriptors_.empty()) return OwnedDescriptor();
  OwnedDescriptor first = std::move(descriptors_.front());
  descriptors_.erase(descriptors_.begin());
  return first;
}

bool Peer::hasEnded() {
  received_.clear();
  while (fill(1)) received_.clear();
  char byte;
  return ::recv(socket_.get(), &byte, 1, MSG_DONTWAIT) >= 0 || errno != EAGAIN;
}

void Peer::waitForEver() {
  constexpr timeval kNever{};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &kNever, sizeof kNever);
}

}  // namespace zq::wire
