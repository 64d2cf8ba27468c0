// Another user on the same bus. Needs root, to become one.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "tests/bus/fake_bus.h"
#include "tests/support/open_bus.h"

namespace zq {
namespace {

using wire::Message;

constexpr uid_t kNobody = 65534;

/// The calls of a user that are not denied: a bit for each, in the order of the list.
int servedOf(const std::string& address, uid_t user) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(user) != 0) ::_exit(64);
    wire::Peer peer = wire::Peer::onBus(address);
    const LineRequest request;
    Message control = Message::call("/org/zqbus/perixcontrol", "org.zqbus.perixcontrol", "state");
    const std::array calls{perixMethod("getVmList").to("org.zqbus.perix"),
                           control.to("org.zqbus.perixcontrol"),
                           Message(request.call).to("org.zqbus.perix")};
    int served = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      std::array descriptors{request.theirs.get()};
      const bool isOpen = calls[i].announcedDescriptors > 0;
      const auto answer = peer.ask(calls[i], std::span(descriptors).first(isOpen ? 1 : 0));
      if (answer && answer->errorName != "org.freedesktop.DBus.Error.AccessDenied") {
        served |= 1 << i;
      }
    }
    ::_exit(served);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OtherUser, IsRefusedByBothInterfaces) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const OpenBus bus;
  const auto service = startDevelopmentService(bus.address, PERIX_DEVSERVICE, {});
  EXPECT_EQ(servedOf(bus.address, kNobody), 0);
  EXPECT_EQ(servedOf(bus.address, 0), 7);
}

}  // namespace
}  // namespace zq
