// Another user on the same bus. Needs root, to become one.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

using wire::Message;

constexpr uid_t kNobody = 65534;

/// A bus that admits every user.
class OpenBus {
 public:
  OpenBus() {
    if (::mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no directory");
    std::filesystem::permissions(directory_, std::filesystem::perms(0755));
    std::ofstream(directory_ + "/conf")
        << R"(<busconfig><listen>unix:path=)" << directory_ << R"(/bus</listen><auth>EXTERNAL</auth>
      <policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
      <allow receive_sender="*"/></policy></busconfig>)";
    ChildProcess::Options options;
    options.arguments = {"dbus-daemon", "--nofork", "--nopidfile",
                         "--config-file=" + directory_ + "/conf",
                         "--print-address=" + std::to_string(ChildProcess::kReadinessDescriptor)};
    options.readiness = true;
    daemon_ = std::make_unique<ChildProcess>(options);
    const auto line = daemon_->readinessLine(kPatience);
    if (!line) throw std::runtime_error("no daemon");
    address = line->substr(0, line->find(','));
  }
  ~OpenBus() {
    daemon_.reset();
    std::filesystem::remove_all(directory_);
  }
  OpenBus(const OpenBus&) = delete;
  OpenBus& operator=(const OpenBus&) = delete;

  std::string address;

 private:
  std::string directory_ = "/tmp/perix-open-bus-XXXXXX";
  std::unique_ptr<ChildProcess> daemon_;
};

/// What becomes of calls of a user's: a bit for each that is not denied, in the order of the list.
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
