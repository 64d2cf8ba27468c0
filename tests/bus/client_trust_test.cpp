// Whom a client believes, whatever others of its bus say and in which order: the bus is the test.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "tests/bus/bus_fixture.h"
#include "tests/bus/fake_bus.h"
#include "tests/support/blocked_thread.h"
#include "tests/support/bus_world.h"

namespace zq {
namespace {

using wire::Message;
using wire::Writer;

Message mount(int32_t number) {
  return Message::signal("/org/zqbus/Broadcast", "org.zqbus.Broadcast", "mountedEvent")
      .with("i", Writer().number(4, number).bytes());
}

/// The bus of these tests has one connection, and a line takes another to open.
class ClientTrust : public testing::Test {
 protected:
  ClientTrust() { ::setenv("ZQBUS_DIRECT", "0", 1); }
  ~ClientTrust() override { ::setenv("ZQBUS_DIRECT", before_.c_str(), 1); }

 private:
  const std::string before_ = usesDirectLines() ? "1" : "0";
};

std::future<std::shared_ptr<ZQBusProxyInterface>> connectSoon() {
  return std::async(std::launch::async, [] { return connect(); });
}

TEST_F(ClientTrust, ConnectsOnceForThreadsThatComeTogether) {
  FakeBus bus;
  std::array<ZQBusSerivceManager*, 2> managers{};
  BlockableThread first([&] { managers[0] = ZQBusSerivceManager::initSync(-1); });
  ASSERT_TRUE(bus.awaitConnection(std::chrono::seconds(10)));
  BlockableThread second([&] { managers[1] = ZQBusSerivceManager::initSync(-1); });
  second.awaitBlocked();
  bus.accept();
  first.join();
  EXPECT_FALSE(bus.awaitConnection(std::chrono::seconds(0)));
  second.join();
  EXPECT_NE(managers[0], nullptr);
  EXPECT_EQ(managers[0], managers[1]);
}

TEST_F(ClientTrust, UsesServiceOfTrustedOwnerAlone) {
  FakeBus bus;
  int number = 10;
  for (const Verdict& verdict : verdicts()) {
    SCOPED_TRACE(verdict.name);
    auto connecting = connectSoon();
    if (number == 10) bus.accept();
    const std::string owner = ":1." + std::to_string(++number);
    const Message asked = bus.question("GetNameOwner");
    bus.send(Message::replyTo(asked).with("s", Writer().text(":1.5").bytes()), ":1.66");
    bus.reply(asked, "s", Writer().text(owner).bytes());
    const Message question = bus.question("GetConnectionUnixUser");
    EXPECT_EQ(question.body, Writer().text(owner).bytes());
    verdict.give(bus, question);
    const auto service = connecting.get();
    EXPECT_EQ(service != nullptr, verdict.trusted);
    if (service != nullptr) {
      EXPECT_EQ(service->owner(), owner);
    }
  }
}

TEST_F(ClientTrust, DeliversBroadcastsOfTrustedSendersInOrder) {
  constexpr int kMost = 32;
  FakeBus bus;
  auto connecting =
      std::async(std::launch::async, [] { return ZQBusSerivceManager::initSync(-1); });
  bus.accept();
  ZQBusSerivceManager* const manager = connecting.get();
  Watched<std::vector<int>> heard;
  auto subscribing = std::async(std::launch::async, [&] {
    return manager->addEventListener(
        "mountedEvent", new ZQBusEventCallback([&](const Reply& event) {
          heard.change([&](auto& all) { all.push_back(event->readInt32(0)); });
        }),
        ZQBusSecurityFlags::TrustedPeer);
  });
  bus.reply(bus.question("AddMatch"), "", "");
  EXPECT_TRUE(subscribing.get());
  std::vector<int> want;
  int number = 10;
  for (const Verdict& verdict : verdicts()) {
    const std::string sender = ":1." + std::to_string(++number);
    // More wait for the answer than may.
    for (int i = 0; i < kMost + 3; ++i) bus.send(mount(number * 100 + i), sender);
    verdict.give(bus, bus.question("GetConnectionUnixUser"));
    bus.ping();
    bus.send(mount(number), sender);
    if (!verdict.trusted) continue;
    for (int i = 0; i < kMost; ++i) want.push_back(number * 100 + i);
    want.push_back(number);
  }
  bus.ping();
  EXPECT_TRUE(heard.wait([&](const auto& all) { return all.size() >= want.size(); }));
  EXPECT_EQ(heard.get(), want);
}

TEST_F(ClientTrust, SendsFormerOwnerNothing) {
  FakeBus bus;
  const auto changeOwner = [&](const char* from, const char* to) {
    bus.send(Message::signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged")
                 .with("sss", Writer().text("org.zqbus.perix").text(from).text(to).bytes()),
             "org.freedesktop.DBus");
  };
  auto connecting = connectSoon();
  bus.accept();
  bus.reply(bus.question("GetNameOwner"), "s", Writer().text(":1.7").bytes());
  bus.replyNumber(bus.question("GetConnectionUnixUser"), ::geteuid());
  const auto service = connecting.get();
  changeOwner(":1.7", ":1.8");
  bus.ping();
  EXPECT_EQ(call(*service, "echo", {}, 100)->failure(), ZQBusFailure::PeerGone);
  auto tooLate = connectSoon();
  bus.reply(bus.call(), "s", Writer().text(":1.8").bytes());
  const Message question = bus.question("GetConnectionUnixUser");
  changeOwner(":1.8", ":1.9");
  bus.replyNumber(question, ::geteuid());
  EXPECT_EQ(call(*tooLate.get(), "echo", {}, 100)->failure(), ZQBusFailure::PeerGone);
  auto asking = connectSoon();
  const Message next = bus.call();
  EXPECT_EQ(next.member, "GetNameOwner");
  bus.reply(next, "s", Writer().text(":1.9").bytes());
  bus.fail(bus.question("GetConnectionUnixUser"));
  EXPECT_EQ(asking.get(), nullptr);
}

TEST_F(ClientTrust, ReportsRefusedSubscription) {
  FakeBus bus;
  auto adding = std::async(std::launch::async, [] {
    const auto service = connect();
    return service->addEventListener("perixevent", new ZQBusEventCallback([](const Reply&) {}),
                                     ZQBusSecurityFlags::TrustedPeer);
  });
  bus.accept();
  bus.reply(bus.question("GetNameOwner"), "s", Writer().text(":1.7").bytes());
  bus.replyNumber(bus.question("GetConnectionUnixUser"), ::geteuid());
  bus.fail(bus.question("AddMatch"));
  EXPECT_FALSE(adding.get());
}

}  // namespace
}  // namespace zq
