// Direct lines: how they come to be, what they survive, and that nobody can hurt others with one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <vector>

#include "platform/zqbus/sdbus/sd_bus_handles.h"
#include "tests/bus/fake_bus.h"
#include "tests/bus/stranger.h"
#include "tests/support/bus_world.h"
#include "tools/embedded/child_process.h"
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

TEST_F(DirectLine, SurvivesTheServicesDeathBeforeWithinAndAfterItsOpening) {
  auto process = startService();
  process->kill();
  EXPECT_EQ(connect(), nullptr);

  process = startService();
  process->pause();
  // Has a copy of every descriptor that goes through the bus until it takes the message: a line
  // that such a copy kept open would not end with the service.
  Stranger monitor;
  monitor.becomeMonitor();
  auto opening = std::async(std::launch::async, connect);
  monitor.seenUntil("Open");
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

TEST_F(DirectLine, OfAKilledClientLeavesNothingBehind) {
  RecordingService owner;
  int descriptors = 0;
  for (int round = 0; round < 50; ++round) {
    int opened[2];
    ASSERT_EQ(::pipe2(opened, O_CLOEXEC), 0);
    const pid_t client = ::fork();
    if (client == 0) {
      Stranger stranger;
      const char sign = stranger.openLine() >= 0 ? '+' : '-';
      if (::write(opened[1], &sign, 1) == 1) ::pause();
      ::_exit(0);
    }
    char sign = 0;
    EXPECT_EQ(::read(opened[0], &sign, 1), 1);
    EXPECT_EQ(sign, '+');
    ::kill(client, SIGKILL);
    owner.sendEvent(0, 4);
    ::waitpid(client, nullptr, 0);
    ::close(opened[0]);
    ::close(opened[1]);
    if (round == 10) descriptors = openDescriptors();
  }
  // Lines that ended are cleared at the next opening.
  EXPECT_LE(openDescriptors(), descriptors + 8);
}

TEST_F(DirectLine, IsOfferedToABoundedNumberAndTheOthersUseTheBus) {
  RecordingService owner;
  Stranger stranger;
  std::vector<wire::Peer> lines;
  for (int i = 0; i < kMaxLines; ++i) {
    lines.emplace_back(OwnedDescriptor(stranger.openLine()));
    ASSERT_TRUE(lines.back().greet());
    ASSERT_TRUE(lines.back().ask(perixMethod("getVmList")));
  }
  EXPECT_LT(stranger.openLine(), 0);
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
  EXPECT_FALSE(stranger.openLineOn(file));
  ::close(file);
  EXPECT_EQ(call(*connect(), "getVmList")->type(), 2);
}

/// A client that reads its line when the test wants it to.
struct SlowClient {
  SlowClient() {
    sd_bus* made = nullptr;
    EXPECT_GE(sd_bus_new(&made), 0);
    line.reset(made);
    const int end = stranger.openLine();
    EXPECT_GE(sd_bus_set_fd(made, end, end), 0);
    EXPECT_GE(sd_bus_start(made), 0);
  }
  /// What comes next; null when nothing does.
  SdBusMessage next() {
    sd_bus_message* message = nullptr;
    int processed = 1;
    while (message == nullptr && processed >= 0) {
      processed = sd_bus_process(line.get(), &message);
      if (processed == 0 &&
          sd_bus_wait(line.get(), std::chrono::microseconds(kPatience).count()) <= 0) {
        break;
      }
    }
    return SdBusMessage(message);
  }

  Stranger stranger;
  SdBus line;
};

TEST_F(DirectLine, CarriesManyEventsInOneMessageToAClientThatIsBehind) {
  RecordingService owner;
  SlowClient client;
  owner.sendEvent(0, 4);
  EXPECT_STREQ(sd_bus_message_get_member(client.next().get()), "perixevent");
  constexpr std::size_t kEvents = 2000;
  for (std::size_t i = 0; i < kEvents; ++i) owner.sendEvent(0, 4, "payload", 7);
  std::size_t events = 0;
  std::size_t messages = 0;
  for (; events < kEvents; ++messages) {
    const SdBusMessage message = client.next();
    ASSERT_NE(message, nullptr) << events;
    const std::string signature = sd_bus_message_get_signature(message.get(), 1);
    events += signature == "iiay" ? 1 : signature.size() / std::strlen("siiiay");
  }
  EXPECT_EQ(events, kEvents);
  EXPECT_LT(messages, kEvents / 2);
}

TEST_F(DirectLine, OfAClientThatIsAlwaysBehindIsKept) {
  RecordingService owner;
  SlowClient client;
  owner.sendEvent(0, 4);
  ASSERT_NE(client.next(), nullptr);
  const std::string payload(1 << 20, 'x');
  constexpr int kAhead = 4;
  for (int i = 0; i < kAhead; ++i) owner.sendEvent(0, 4, payload.data(), payload.size());
  for (int i = 0; i < 100; ++i) {
    owner.sendEvent(0, 4, payload.data(), payload.size());
    ASSERT_NE(client.next(), nullptr) << i;
  }
}

TEST_F(DirectLine, OfAClientThatDoesNotReadIsCutAndOthersGoOn) {
  RecordingService owner;
  const auto interface = connect();
  Watched<int> heard;
  interface->addEventListener(
      "perixevent", new ZQBusEventCallback([&](const auto&) { heard.change([](int& n) { ++n; }); }),
      ZQBusSecurityFlags::TrustedPeer);
  Stranger stranger;
  const OwnedDescriptor deaf(stranger.openLine());
  ASSERT_TRUE(deaf);
  const std::string payload(1 << 20, 'x');
  constexpr int kEvents = 100;
  for (int i = 1; i <= kEvents; ++i) {
    owner.sendEvent(0, 4, payload.data(), payload.size());
    ASSERT_TRUE(heard.wait([i](int n) { return n == i; }));
  }
  // What the service still wrote, and then the end of the line; without one this waits in vain.
  std::string rest(1 << 20, '\0');
  ssize_t read = 1;
  while (read > 0) read = ::recv(deaf.get(), rest.data(), rest.size(), 0);
  EXPECT_EQ(read, 0);
}

}  // namespace
}  // namespace zq
