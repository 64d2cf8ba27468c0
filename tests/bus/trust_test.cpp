// Which connections the service and a client trust, whatever other connections say and in which
// order: the bus is the test.

#include <array>

#include "tests/bus/bus_fixture.h"
#include "tests/bus/fake_bus.h"
#include "tests/support/blocked_thread.h"

namespace zq {
namespace {

using wire::Message;
using wire::Type;
using wire::Writer;

constexpr uint32_t kOtherUser = 54321;
constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char kTooMuch[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char kForger[] = ":1.66";
constexpr char kClient[] = ":1.7";

std::string body(uint32_t number) {
  return Writer().number(4, number).bytes();
}

using Answering = std::function<void(FakeBus&, const Message& question)>;

Answering answerNumber(uint32_t number) {
  return [=](FakeBus& bus, const Message& asked) { bus.replyNumber(asked, number); };
}
Answering answerText(const std::string& text) {
  return [=](FakeBus& bus, const Message& asked) {
    bus.reply(asked, "s", Writer().text(text).bytes());
  };
}
void answerError(FakeBus& bus, const Message& asked) {
  bus.send(Message::replyTo(asked, Type::Error), wire::kDaemon);
}

/// Answers to the question for a connection's user, and whether the connection is trusted then.
struct Verdict {
  const char* name;
  Answering give;
  bool trusted;
};

const Verdict kVerdicts[] = {
    {"this user", answerNumber(::geteuid()), true},
    {"root", answerNumber(0), true},
    {"another user", answerNumber(kOtherUser), false},
    {"no user any more", answerError, false},
    {"an error that holds a number",
     [](FakeBus& bus, const Message& asked) {
       bus.send(Message::replyTo(asked, Type::Error).with("u", body(::geteuid())), wire::kDaemon);
     },
     false},
    {"an answer that cannot be read", answerText("0"), false},
    {"another user, after a forger's answer",
     [](FakeBus& bus, const Message& asked) {
       for (const char* sender : {kForger, kClient}) {
         bus.send(Message::replyTo(asked).with("u", body(::geteuid())), sender);
       }
       bus.replyNumber(asked, kOtherUser);
     },
     false},
    {"this user, after a forger's error",
     [](FakeBus& bus, const Message& asked) {
       bus.send(Message::replyTo(asked, Type::Error), kForger);
       bus.replyNumber(asked, ::geteuid());
     },
     true},
};

// --- The client ----------------------------------------------------------------------------------

Message mount(int32_t number) {
  return Message::signal("/org/zqbus/Broadcast", "org.zqbus.Broadcast", "mountedEvent")
      .with("i", body(number));
}

std::future<std::shared_ptr<ZQBusProxyInterface>> connectSoon() {
  return soon([] { return connect(); });
}
std::future<bool> isRegisteredSoon() {
  return soon([] { return ZQBusSerivceManager::initSync(-1)->isServiceRegistered("perix"); });
}

/// The bus of these tests has one connection, and a line takes another to open.
class ClientTrust : public testing::Test {
 protected:
  ClientTrust() { ::setenv("ZQBUS_DIRECT", "0", 1); }
  ~ClientTrust() override { ::setenv("ZQBUS_DIRECT", before.c_str(), 1); }
  std::shared_ptr<ZQBusProxyInterface> connected() {
    auto connecting = connectSoon();
    bus.accept();
    bus.own(kClient);
    bus.admit();
    return connecting.get();
  }

  const std::string before = usesDirectLines() ? "1" : "0";
  FakeBus bus;
};

TEST_F(ClientTrust, ConnectsOnceForThreadsThatComeTogether) {
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
  int number = 10;
  for (const Verdict& verdict : kVerdicts) {
    SCOPED_TRACE(verdict.name);
    auto connecting = connectSoon();
    if (number == 10) bus.accept();
    const std::string owner = ":1." + std::to_string(++number);
    const Message asked = bus.question("GetNameOwner");
    bus.send(Message::replyTo(asked).with("s", Writer().text(":1.5").bytes()), kForger);
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
  auto connecting = soon([] { return ZQBusSerivceManager::initSync(-1); });
  bus.accept();
  ZQBusSerivceManager& manager = *connecting.get();
  Watched<std::vector<int>> heard;
  auto subscribing = soon([&] {
    return listen(
        manager, [&](const Reply& event) { heard.append(event->readInt32(0)); }, "mountedEvent");
  });
  bus.reply(bus.question("AddMatch"), "", "");
  EXPECT_TRUE(subscribing.get());
  std::vector<int> want;
  int number = 10;
  for (const Verdict& verdict : kVerdicts) {
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
  EXPECT_TRUE(heard.waitForSize(want.size()));
  EXPECT_EQ(heard.get(), want);
}

TEST_F(ClientTrust, SendsFormerOwnerNothing) {
  const auto changeOwner = [&](const char* from, const char* to) {
    bus.send(nameChange(kPerixName, from, to), wire::kDaemon);
  };
  const auto service = connected();
  changeOwner(kClient, ":1.8");
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
  answerError(bus, bus.question("GetConnectionUnixUser"));
  EXPECT_EQ(asking.get(), nullptr);
}

TEST_F(ClientTrust, BelievesChangeOfOwnerThatOvertakesAnswer) {
  auto asking = isRegisteredSoon();
  bus.accept();
  const Message question = bus.question("GetNameOwner");
  bus.send(nameChange(kPerixName, kClient, ""), wire::kDaemon);
  bus.reply(question, "s", Writer().text(kClient).bytes());
  EXPECT_FALSE(asking.get());
}

TEST_F(ClientTrust, DoesNotTakeSilenceForTrust) {
  auto connecting = soon([] {
    auto* const manager = ZQBusSerivceManager::initSync(-1);
    const ZQBusTimeLimit limit{std::chrono::milliseconds(300)};
    return manager->getServiceProxyInterface("perix", ZQBusSecurityFlags::TrustedPeer, 1);
  });
  bus.accept();
  bus.own(kClient);
  EXPECT_EQ(connecting.get(), nullptr);
}

TEST_F(ClientTrust, EndsCallsOnceDeathIsKnown) {
  const auto service = connected();
  auto unheard = soon([&] { return call(*service, "echo", {}); });
  Message nobodyThere = Message::replyTo(bus.call(), Type::Error);
  nobodyThere.errorName = "org.freedesktop.DBus.Error.ServiceUnknown";
  bus.send(nobodyThere, wire::kDaemon);
  EXPECT_EQ(unheard.get()->failure(), ZQBusFailure::PeerGone);
  auto waiting = soon([&] { return call(*service, "echo", {}); });
  EXPECT_EQ(bus.call().member, "echo");
  // Another thread learns of the death. The bus tells no change: it may have refused the match.
  auto asking = isRegisteredSoon();
  bus.own(":1.8");
  EXPECT_TRUE(asking.get());
  // Before its time-out.
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(waiting.get()->failure(), ZQBusFailure::PeerGone);
}

TEST_F(ClientTrust, ReportsSubscriptionThatBusDoesNotMake) {
  const auto service = connected();
  for (const bool isLost : {false, true}) {
    auto adding = soon([&] { return listen(*service, [](const Reply&) {}); });
    const Message question = bus.question("AddMatch");
    isLost ? bus.close() : answerError(bus, question);
    EXPECT_FALSE(adding.get());
  }
}

// --- The service ---------------------------------------------------------------------------------

std::string outcomeOf(const Message& answer) {
  return answer.type == Type::Return ? "" : answer.errorName;
}

class ServiceTrust : public testing::Test {
 protected:
  FakeBus bus;
  std::unique_ptr<ZQBusService> service = bus.start();
};

TEST_F(ServiceTrust, ServesItsUserAlone) {
  int number = 10;
  for (const Verdict& verdict : kVerdicts) {
    SCOPED_TRACE(verdict.name);
    const std::string caller = ":1." + std::to_string(++number);
    bus.send(perixMethod("echo").with("u", body(7)), caller);
    verdict.give(bus, bus.question("GetConnectionUnixUser"));
    EXPECT_EQ(outcomeOf(bus.answer()), verdict.trusted ? "" : kDenied);

    const std::string wisher = ":1." + std::to_string(++number);
    LineRequest request;
    bus.send(request, wisher);
    verdict.give(bus, bus.question("GetConnectionUnixUser"));
    EXPECT_EQ(outcomeOf(bus.answer()), verdict.trusted ? "" : kDenied);
    request.theirs.reset();
    EXPECT_EQ(static_cast<bool>(wire::Peer(std::move(request.ours)).takeDescriptor()),
              verdict.trusted);
  }
}

TEST_F(ServiceTrust, DropsCallWithoutSender) {
  bus.send(perixMethod("echo").with("u", body(1)), "");
  bus.send(LineRequest().call, "");
  bus.send(perixMethod("echo").with("u", body(2)), kClient);
  bus.admit();
  EXPECT_EQ(bus.answer().body, body(2));
}

TEST_F(ServiceTrust, BoundsCallsThatWaitForCheck) {
  constexpr uint32_t kMost = 32;
  int before = 0;
  for (uint32_t i = 0; i <= kMost; ++i) {
    LineRequest request;
    if (i < 3) {
      bus.send(perixMethod("echo").with("u", body(i)), kClient);
    } else {
      bus.send(request, kClient);
    }
    if (i == 0) before = openDescriptors();
  }
  const Message asked = bus.question("GetConnectionUnixUser");
  EXPECT_EQ(outcomeOf(bus.answer()), kTooMuch);
  bus.replyNumber(asked, kOtherUser);
  uint32_t serial = 0;
  for (uint32_t i = 0; i < kMost; ++i) {
    const Message refused = bus.answer();
    EXPECT_EQ(outcomeOf(refused), kDenied);
    EXPECT_GT(refused.replySerial, std::exchange(serial, refused.replySerial));
  }
  for (uint32_t i = 0; i < 3; ++i) bus.send(perixMethod("echo").with("u", body(i)), ":1.8");
  bus.admit();
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(bus.answer().body, body(i));
  bus.ping();
  EXPECT_LE(openDescriptors(), before);
}

TEST_F(ServiceTrust, ChecksManyListenersAtOnce) {
  constexpr std::size_t kListeners = 1000;
  const Message listen = Message::call(kPerixPath, "org.zqbus.Direct", "Listen").to(kPerixName);
  for (std::size_t i = 0; i < kListeners; ++i) bus.send(listen, ":2." + std::to_string(i));
  std::vector<Message> questions;
  while (questions.size() < kListeners) {
    questions.push_back(bus.question("GetConnectionUnixUser"));
  }
  for (const Message& question : questions) bus.replyNumber(question, ::geteuid());
  for (std::size_t i = 0; i < kListeners; ++i) EXPECT_EQ(outcomeOf(bus.answer()), "") << i;
  bus.send(perixMethod("echo").with("u", body(7)), ":2.0");
  EXPECT_EQ(bus.answer().body, body(7));
}

TEST_F(ServiceTrust, RefusesDescriptors) {
  const int before = openDescriptors();
  const LineRequest request;
  const auto twice = [&](Message call) {
    call.announcedDescriptors = 2;
    return call;
  };
  const std::array both{request.theirs.get(), request.theirs.get()};
  const Message open = request.call;
  const std::vector<Message> refused = {
      twice(perixMethod("echo").with("h", body(0))),
      twice(perixMethod("echo").with("a(ih)", Writer().array(8, [](Writer&) {}).bytes())),
      twice(Message(open).with("hh", body(0) + body(1))),
      twice(Message(open).with("u", body(0))),
  };
  for (const Message& call : refused) {
    bus.send(call, kClient, both);
    EXPECT_EQ(outcomeOf(bus.answer()), "org.freedesktop.DBus.Error.InvalidArgs") << call.signature;
  }
  // A descriptor that no argument is for goes with the message.
  bus.send(twice(perixMethod("echo").with("u", body(1))), kClient, both);
  bus.admit();
  EXPECT_EQ(bus.answer().body, body(1));
  bus.ping();
  EXPECT_EQ(openDescriptors(), before + 2);
}

TEST(ServiceName, TakesNoCallBeforeItIsOwned) {
  FakeBus bus;
  auto claimed = FakeBus::claim();
  const Message claim = bus.welcome();
  bus.send(perixMethod("echo"), kClient);
  EXPECT_EQ(outcomeOf(bus.answer()), "org.freedesktop.DBus.Error.ServiceUnknown");
  bus.replyNumber(claim, 1);
  EXPECT_NE(claimed.get(), nullptr);
}

TEST(ServiceName, IsGrantedByDaemonAlone) {
  const struct {
    const char* name;
    Answering answer;
    const char* error;
  } rows[] = {
      {"another owner", answerNumber(3), "org.zqbus.perix is owned by another process"},
      {"a forger's yes",
       [](FakeBus& bus, const Message& claim) {
         bus.send(Message::replyTo(claim).with("u", body(1)), kForger);
         bus.replyNumber(claim, 3);
       },
       "org.zqbus.perix is owned by another process"},
      {"no right to it", answerError, "org.zqbus.perix: Input/output error"},
      {"an answer that cannot be read", answerText("1"), "org.zqbus.perix: Bad message"},
      {"a forger's no",
       [](FakeBus& bus, const Message& claim) {
         bus.send(Message::replyTo(claim).with("u", body(3)), kForger);
         bus.replyNumber(claim, 1);
       },
       ""},
      {"the end of the connection", [](FakeBus& bus, const Message&) { bus.close(); },
       "org.zqbus.perix: Connection timed out"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeBus bus;
    std::string error;
    auto claimed = FakeBus::claim(&error);
    row.answer(bus, bus.welcome());
    EXPECT_EQ(claimed.get() != nullptr, *row.error == '\0');
    EXPECT_EQ(error, row.error);
  }
}

TEST(ServiceEvents, GoToBusForConnectedClientsAlone) {
  const struct {
    const char* name;
    Answering tell;
    bool isBelieved;  ///< that the client is gone
  } rows[] = {
      {"it is there", [](FakeBus& bus, const Message& asked) { bus.reply(asked, "b", body(1)); },
       false},
      {"it left before", [](FakeBus& bus, const Message& asked) { bus.reply(asked, "b", body(0)); },
       true},
      {"it leaves",
       [](FakeBus& bus, const Message& asked) {
         bus.reply(asked, "b", body(1));
         bus.send(nameChange(kClient, kClient, ""), wire::kDaemon);
       },
       true},
      {"another client leaves",
       [](FakeBus& bus, const Message& asked) {
         bus.reply(asked, "b", body(1));
         bus.send(nameChange(":1.8", ":1.8", ""), wire::kDaemon);
       },
       false},
      {"a forger says so",
       [](FakeBus& bus, const Message& asked) {
         bus.send(Message::replyTo(asked).with("b", body(0)), kForger);
         bus.reply(asked, "b", body(1));
         bus.send(nameChange(kClient, kClient, ""), kForger);
       },
       false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeBus bus;
    const auto service = bus.start();
    wire::Peer line = bus.openLine(":1.9");
    ASSERT_TRUE(line.greet());
    bus.send(perixMethod("echo"), kClient);
    bus.admit();
    EXPECT_NE(bus.question("AddMatch").body.find(kClient), std::string::npos);
    row.tell(bus, bus.question("NameHasOwner"));
    // Behind all of that, on both ways.
    bus.ping();
    ASSERT_TRUE(line.ask(perixMethod("echo")));
    service->sendEvent("perixevent", {});
    service->sendBroadcast("last", {});
    EXPECT_EQ(bus.signal().member, row.isBelieved ? "last" : "perixevent");
  }
}

}  // namespace
}  // namespace zq
