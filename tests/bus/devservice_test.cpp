// The development service on the bus: its start, and the users that it serves.
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "tests/bus/bus_fixture.h"
#include "tests/bus/peers.h"
#include "tests/support/bus_daemon.h"
#include "tests/support/open_bus.h"

namespace zq {
namespace {

TEST(Activation, StartsServiceOrTellsWhyNot) {
  if (usesDbusBroker()) GTEST_SKIP() << "dbus-broker leaves starting to a service manager";
  const struct {
    const char* program;  ///< of the activation file; null for no file
    const char* setting;  ///< of ZQBUS_ACTIVATE
    const char* problem;  ///< stands in the problem; null when the service runs then
  } rows[] = {
      {nullptr, "1", "nobody owns org.zqbus.perix on the bus at unix:path="},
      {"/nonexistent", "1", "cannot start it: Failed to execute program"},
      {"/bin/false", "1", "cannot start it: Process org.zqbus.perix exited with status 1"},
      {PERIX_DEVSERVICE, "0", "nobody owns org.zqbus.perix"},
      {PERIX_DEVSERVICE, "1", nullptr},
  };
  auto* const manager = ZQBusSerivceManager::initSync(-1);
  for (const auto& [program, setting, problem] : rows) {
    SCOPED_TRACE(program != nullptr ? program : "no file");
    ::setenv("ZQBUS_ACTIVATE", setting, 1);
    if (program != nullptr) letBusStart(program);
    EXPECT_FALSE(manager->isServiceRegistered("perix"));
    EXPECT_EQ(manager->startService("perix"), problem == nullptr);
    const std::string text = lastZQBusProblem().text;
    if (problem != nullptr) {
      EXPECT_NE(text.find(problem), std::string::npos) << text;
    }
    EXPECT_EQ(manager->isServiceRegistered("perix"), problem == nullptr);
  }
  EXPECT_NE(connect(), nullptr);
}

// Needs root, to become another user.
constexpr uid_t kNobody = 65534;

/// The calls of a user that are not denied: a bit for each, in the order of the list.
int servedOf(const std::string& address, uid_t user) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(user) != 0) ::_exit(64);
    wire::Peer peer = wire::Peer::onBus(address);
    const LineRequest request;
    wire::Message control =
        wire::Message::call("/org/zqbus/perixcontrol", "org.zqbus.perixcontrol", "state");
    const std::array calls{perixMethod("getVmList"), control.to("org.zqbus.perixcontrol"),
                           request.call};
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
