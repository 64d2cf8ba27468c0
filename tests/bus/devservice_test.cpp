// The development service on the bus: its start, and the users that it serves.
#include <array>

#include "tests/bus/bus_fixture.h"
#include "tests/bus/peers.h"
#include "tests/support/child.h"
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

/// The calls that are served, and not denied, when that user makes them.
std::string servedOf(const std::string& address, uid_t user) {
  return inChild([&] {
    if (::setuid(user) != 0) return std::string("not this user");
    wire::Peer peer = wire::Peer::onBus(address);
    const LineRequest request;
    const auto control =
        wire::Message::call("/org/zqbus/perixcontrol", "org.zqbus.perixcontrol", "state");
    std::string served;
    for (const auto& call : {perixMethod("getVmList"),
                             wire::Message(control).to("org.zqbus.perixcontrol"), request.call}) {
      std::array descriptors{request.theirs.get()};
      const auto answer = peer.ask(call, std::span(descriptors).first(call.announcedDescriptors));
      const bool isDenied =
          answer && answer->errorName == "org.freedesktop.DBus.Error.AccessDenied";
      if (answer && !isDenied) served += call.member + ' ';
    }
    return served;
  });
}

TEST(OtherUser, IsRefusedByBothInterfaces) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  constexpr uid_t kNobody = 65534;
  const OpenBus bus;
  const auto service = startDevelopmentService(bus.address, PERIX_DEVSERVICE, {});
  EXPECT_EQ(servedOf(bus.address, kNobody), "");
  EXPECT_EQ(servedOf(bus.address, 0), "getVmList state Open ");
}

}  // namespace
}  // namespace zq
