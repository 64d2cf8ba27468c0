// Direct lines: how they come to be, what they survive, and that nobody can hurt others with one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "tests/bus/stranger.h"
#include "tests/support/bus_world.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr int kMaxLines = 64;

std::shared_ptr<ZQBusProxyInterface> connect() {
  return ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::TrustedPeer, 1);
}

std::shared_ptr<ZQBusMessage> call(ZQBusProxyInterface& service, const char* method) {
  return service.callWithReplyBlocking(service.makeMethodCallMessage(method), 20000);
}

class DirectLine : public testing::Test {
 protected:
  void SetUp() override {
    if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  }
};

/// A socket pair of which nobody reads our end.
struct Pair {
  Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
  ~Pair() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  int ends[2];
};

TEST_F(DirectLine, SurvivesTheServicesDeathBeforeWithinAndAfterItsOpening) {
  auto process = startService();
  process->kill();
  EXPECT_EQ(connect(), nullptr);

  process = startService();
  process->pause();
  std::future<std::shared_ptr<ZQBusProxyInterface>> opening;
  {
    // Gone before the next line is opened: a monitor gets a copy of the descriptor too, and a line
    // ends with the last copy of its end.
    Stranger monitor;
    monitor.becomeMonitor();
    opening = std::async(std::launch::async, connect);
    monitor.seenUntil("Open");
  }
  process->kill();
  if (const auto interface = opening.get()) {
    EXPECT_EQ(call(*interface, "getVmList")->failure(), ZQBusFailure::PeerGone);
    Watched<int> deaths;
    interface->setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
    EXPECT_TRUE(deaths.wait([](int n) { return n == 1; }));
  }

  process = startService();
  const auto interface = connect();
  EXPECT_EQ(call(*interface, "getVmList")->failure(), ZQBusFailure::Service);
  process->kill();
  EXPECT_EQ(call(*interface, "getVmList")->failure(), ZQBusFailure::PeerGone);
}

TEST_F(DirectLine, LeavesNothingBehindInFiveHundredRounds) {
  RecordingService owner;
  int descriptors = 0;
  for (int round = 0; round < 500; ++round) {
    const auto interface = connect();
    ASSERT_EQ(call(*interface, "getVmList")->type(), 2);
    if (round == 10) descriptors = openDescriptors();
  }
  EXPECT_LE(openDescriptors(),
            descriptors + 8);  // lines that ended are cleared at the next opening
}

TEST_F(DirectLine, IsOfferedToABoundedNumberAndTheOthersUseTheBus) {
  RecordingService owner;
  std::vector<Pair> pairs(kMaxLines);
  Stranger stranger;
  for (const Pair& pair : pairs) ASSERT_TRUE(stranger.openLine(pair.ends[1]));
  Pair tooMany;
  EXPECT_FALSE(stranger.openLine(tooMany.ends[1]));
  const auto interface = connect();
  EXPECT_EQ(call(*interface, "getVmList")->type(), 2);
  Watched<int> heard;
  interface->addEventListener(
      "perixevent", new ZQBusEventCallback([&](const auto&) { heard.change([](int& n) { ++n; }); }),
      ZQBusSecurityFlags::TrustedPeer);
  EXPECT_EQ(call(*interface, "getVmList")->type(), 2);
  owner.sendEvent(0, 1);
  EXPECT_TRUE(heard.wait([](int n) { return n == 1; }));
}

TEST_F(DirectLine, TakesNothingButAStreamSocket) {
  RecordingService owner;
  Stranger stranger;
  const int file = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  EXPECT_FALSE(stranger.openLine(file));
  ::close(file);
  EXPECT_EQ(call(*connect(), "getVmList")->type(), 2);
}

TEST_F(DirectLine, OfAClientThatDoesNotReadIsCutAndOthersGoOn) {
  RecordingService owner;
  const auto interface = connect();
  Watched<int> heard;
  interface->addEventListener(
      "perixevent", new ZQBusEventCallback([&](const auto&) { heard.change([](int& n) { ++n; }); }),
      ZQBusSecurityFlags::TrustedPeer);
  Pair deaf;
  Stranger stranger;
  ASSERT_TRUE(stranger.openLine(deaf.ends[1]));
  const std::string payload(1 << 20, 'x');
  constexpr int kEvents = 100;
  for (int i = 1; i <= kEvents; ++i) {
    owner.sendEvent(0, 4, payload.data(), payload.size());
    ASSERT_TRUE(heard.wait([i](int n) { return n == i; }));
  }
  // What the service still wrote, and then the end of the line; without one this waits in vain.
  std::string rest(1 << 20, '\0');
  ssize_t read = 1;
  while (read > 0) read = ::recv(deaf.ends[0], rest.data(), rest.size(), 0);
  EXPECT_EQ(read, 0);
}

}  // namespace
}  // namespace zq
