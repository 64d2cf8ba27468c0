#include "descriptor_passing.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

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
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};  // tells one from more
  msghdr header{};
};

/// The descriptors that came with a message.
std::vector<int> descriptorsOf(msghdr& header) {
  std::vector<int> all;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t before = all.size();
    all.resize(before + (part->cmsg_len - CMSG_LEN(0)) / sizeof(int));
    std::memcpy(&all[before], CMSG_DATA(part), part->cmsg_len - CMSG_LEN(0));
  }
  return all;
}

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
  const std::vector<int> all = descriptorsOf(message.header);
  if (all.size() == 1) return all[0];
  for (const int descriptor : all) ::close(descriptor);
  return -1;
}

}  // namespace zq
