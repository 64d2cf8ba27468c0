#include "descriptor_passing.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace zq {
namespace {

/// A message of one byte, since a stream carries descriptors with bytes only, and one descriptor.
struct Message {
  Message() {
    header.msg_iov = &content;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  char byte = 0;
  iovec content{&byte, sizeof byte};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{};
};

}  // namespace

int sendDescriptor(int socket, int descriptor) {
  Message message;
  cmsghdr* const part = CMSG_FIRSTHDR(&message.header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(part), &descriptor, sizeof descriptor);
  return ::sendmsg(socket, &message.header, MSG_DONTWAIT | MSG_NOSIGNAL) > 0 ? 0 : -errno;
}

int receiveDescriptor(int socket) {
  Message message;
  if (::recvmsg(socket, &message.header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) <= 0) return -1;
  const cmsghdr* const part = CMSG_FIRSTHDR(&message.header);
  if (part == nullptr || part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) return -1;
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(part), sizeof descriptor);
  return descriptor;
}

}  // namespace zq
