// One connection: its threads, its questions and the form of its messages.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "platform/zqbus/event_bundle.h"
#include "platform/zqbus/sdbus/client_connection.h"
#include "platform/zqbus/sdbus/codec.h"
#include "platform/zqbus/sdbus/connection_loop.h"
#include "platform/zqbus/sdbus/sender_trust.h"
#include "tests/support/messages.h"
#include "tests/support/watched.h"

namespace zq {
namespace {

using namespace std::string_literals;

/// Both ends of a connection, past the handshake.
std::pair<SdBus, SdBus> connectedPair() {
  int ends[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  sd_bus* server = nullptr;
  sd_bus* client = nullptr;
  EXPECT_GE(sd_bus_new(&server), 0);
  EXPECT_GE(sd_bus_new(&client), 0);
  EXPECT_GE(sd_bus_set_fd(server, ends[0], ends[0]), 0);
  EXPECT_GE(sd_bus_set_server(server, 1, {}), 0);
  EXPECT_GE(sd_bus_set_fd(client, ends[1], ends[1]), 0);
  EXPECT_GE(sd_bus_start(server), 0);
  EXPECT_GE(sd_bus_start(client), 0);
  while (sd_bus_is_ready(client) <= 0 || sd_bus_is_ready(server) <= 0) {
    EXPECT_GE(sd_bus_process(server, nullptr), 0);
    EXPECT_GE(sd_bus_process(client, nullptr), 0);
  }
  return {SdBus(server), SdBus(client)};
}

struct Silent : ConnectionLoop::Listener {
  void onConnectionLost() override {}
};

/// Counts messages. From the second on, another thread wants the lock.
struct Counter {
  std::atomic<int> read = 0;
  Watched<bool> begun;
  std::atomic<bool> wanted = false;

  static int onMessage(sd_bus_message*, void* userdata, sd_bus_error*) {
    auto& counter = *static_cast<Counter*>(userdata);
    counter.begun.set(true);
    while (!counter.wanted) std::this_thread::yield();
    ++counter.read;
    return 1;
  }
};

TEST(ConnectionLoop, LetsOtherThreadsInDuringFlood) {
  constexpr int kMessages = 4000;
  auto [server, client] = connectedPair();
  Counter counter;
  sd_bus_add_filter(client.get(), nullptr, &Counter::onMessage, &counter);
  Silent listener;
  const auto loop = std::make_shared<ConnectionLoop>(
      std::move(client), listener, [] {}, ConnectionLoop::WhileWorking::Wait);
  for (int i = 0; i < kMessages; ++i) {
    ASSERT_GE(sd_bus_emit_signal(server.get(), "/a", "a.b", "c", ""), 0);
  }
  std::thread sending(sd_bus_flush, server.get());
  {
    const ConnectionLoop::Hold hold(*loop);
    ASSERT_GE(loop->start(), 0);
  }
  ASSERT_TRUE(counter.begun.waitFor(true));
  counter.wanted = true;
  int readWhenIn = 0;
  {
    const ConnectionLoop::Hold hold(*loop);
    readWhenIn = counter.read;
  }
  sending.join();
  EXPECT_LT(readWhenIn, kMessages / 2);
  loop->close();
  loop->join();
}

TEST(ClientConnection, HasOnlyDeadPeersOnceItIsLost) {
  static auto& deliveries = *new DeliveryQueue;  // as the library's, which is never destroyed
  auto [server, client] = connectedPair();
  ClientConnection connection(std::move(client), deliveries, ZQBusFailure::PeerGone);
  ASSERT_GE(connection.start(), 0);
  static Watched<int> deaths;
  const auto early = connection.addPeer("perix", ":1.1");
  connection.setDeathCallback(early, [] { deaths.increment(); });
  server.reset();
  ASSERT_TRUE(deaths.waitFor(1));
  const auto late = connection.addPeer("perix", ":1.1");
  EXPECT_TRUE(late->gone());
  connection.setDeathCallback(late, [] { deaths.increment(); });
  EXPECT_TRUE(deaths.waitFor(2));
}

TEST(SenderTrust, AsksAgainAfterLateAnswer) {
  auto [server, client] = connectedPair();
  PendingCalls calls;
  SenderTrust trust(calls);
  std::vector<bool> verdicts;
  for (const std::size_t round : {1U, 2U}) {
    ASSERT_TRUE(trust.check(client.get(), ":1.7", [&](bool yes) { verdicts.push_back(yes); }));
    EXPECT_EQ(verdicts.size(), round - 1);
    calls.expire(PendingCalls::Clock::now() + std::chrono::hours(1));
    EXPECT_EQ(verdicts, std::vector<bool>(round, false));
  }
}

TEST(EventBundle, HoldsEventsWhateverItsNumbersSay) {
  for (const int32_t wrong : {2, INT32_MAX, -1}) {
    const auto events = EventBundle::eventsOf(message("first"s, int32_t{0}, "second"s, wrong, 7));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]->toDebugString(), "event first()");
    EXPECT_EQ(events[1]->toDebugString(), "event second(i:7)");
  }
  EXPECT_TRUE(EventBundle::eventsOf(message("no number"s)).empty());
}

// Does not send the message: sanitizers take half a minute to pass it on.
TEST(List, LargerThanAnArrayTravelsInSeveral) {
  constexpr int kRecords = 130;
  ZQBusMessage list = message(int32_t{kRecords});
  for (int i = 0; i < kRecords; ++i) {
    list.append(bytes(std::string(600 << 10, static_cast<char>(i))));
  }
  const auto [server, client] = connectedPair();
  sd_bus_message* call = nullptr;
  ASSERT_GE(sd_bus_message_new_method_call(client.get(), &call, nullptr, "/a", "a.b", "c"), 0);
  const SdBusMessage wire(call);
  ASSERT_GE(encodeArguments(list, call), 0);
  EXPECT_STREQ(sd_bus_message_get_signature(call, 1), "iaayaay");
  ASSERT_GE(sd_bus_message_seal(call, 1, 0), 0);
  ASSERT_GE(sd_bus_message_rewind(call, 1), 0);
  ZQBusMessage decoded;
  ASSERT_GE(decodeArguments(call, decoded), 0);
  ASSERT_EQ(decoded.argCount(), list.argCount());
  for (std::size_t i = 1; i < list.argCount(); ++i) {
    EXPECT_EQ(std::get<ZQBusBytes>(decoded.arguments()[i]).view(),
              std::get<ZQBusBytes>(list.arguments()[i]).view());
  }
}

}  // namespace
}  // namespace zq
