// What other clients of the bus can do to ours, and see of it, and the ends of direct lines.

#include "tests/bus/bus_fixture.h"
#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

using wire::Message;
using wire::Peer;
using wire::Writer;

std::string eventBody(uint32_t kind) {
  return Writer().number(4, 0).number(4, kind).bytes();
}

TEST_F(Bus, ForgedSignalsReachNoCallback) {
  Watched<std::string> caller;
  recorder->answerWith([&](const std::shared_ptr<ZQBusCall>& received) {
    caller.set(received->sender());
    received->reply(message(int32_t{0}));
  });
  Watched<std::vector<int>> heard;
  listen(*service, [&](const Reply& event) { heard.append(event->readInt32(1)); });
  Deaths deaths(*service);
  call(*service, "whoami", {});

  Peer forger = Peer::onBus(testBus().address());
  const Message event =
      Message::signal(kPerixPath, kPerixName, "perixevent").with("ii", eventBody(666));
  const Message batch =
      Message::signal(kPerixPath, "org.zqbus.Direct", "Events")
          .with("siii", Writer().text("perixevent").number(4, 2).raw(eventBody(667)).bytes());
  forger.send(event);
  forger.send(batch);
  // To every client, only the daemon may send changes of names.
  for (const Message& forged : {event, batch, nameChange(kPerixName, service->owner(), ""),
                                nameChange(kPerixName, service->owner(), forger.name())}) {
    forger.send(Message(forged).to(caller.get()));
  }
  forger.ask(Message::call("/", "org.freedesktop.DBus.Peer", "Ping").to(wire::kDaemon));
  // An answer of the bus comes behind the forgeries now.
  manager.isServiceRegistered("perix");
  recorder->sendEvent(0, 1);
  ASSERT_TRUE(heard.waitForSize(1));
  EXPECT_EQ(heard.get(), std::vector<int>{1});
  EXPECT_EQ(call(*service, "whoami", {})->type(), 2);
  EXPECT_NE(caller.get(), forger.name());
  EXPECT_EQ(deaths.get(), 0);
}

TEST_F(Bus, MonitorSeesTrafficOfTheBusAlone) {
  Watched<int> heard;
  listen(*service, counter(heard));
  Peer monitor = Peer::onBus(testBus().address());
  becomeMonitor(monitor);
  EXPECT_EQ(call(*service, "updateDriveToken", message(std::string("secret")))->type(), 2);
  recorder->sendEvent(0, 4);
  ASSERT_TRUE(heard.waitFor(1));
  recorder->bus().sendBroadcast("last", {});
  std::vector<std::string> seen;
  monitor.receiveUntil([&](const Message& message) {
    if (message.interface == kPerixName) seen.push_back(message.member);
    return message.member == "last";
  });
  using Names = std::vector<std::string>;
  EXPECT_EQ(seen, usesDirectLines() ? Names() : (Names{"updateDriveToken", "perixevent"}));
}

TEST(DirectLine, AnnouncesListenerWhenItIsRefused) {
  if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  const std::pair<const char*, bool> refusals[] = {
      {"no direct line: Too many open files", true},
      {"too many senders are being checked", true},
      {"Unknown method Open", false},
  };
  for (const auto& [reason, announces] : refusals) {
    SCOPED_TRACE(reason);
    FakeService service([text = reason](Peer& bus, const Message& open, Peer&) {
      bus.send(Message::replyTo(open, wire::Type::Error).with("s", Writer().text(text).bytes()));
    });
    Watched<int> heard;
    auto listening = soon([&] { return listen(service.client(), counter(heard)); });
    if (announces) {
      const auto listen = service.nextCall();
      EXPECT_EQ(listen->member, "Listen");
      service.answerWell(*listen);
    }
    EXPECT_TRUE(listening.get());
    auto asking = callSoon(service.client());
    const auto ask = service.nextCall();
    EXPECT_EQ(ask->member, "ask");
    service.answerWell(*ask);
    EXPECT_TRUE(isGood(asking.get()));
  }
}

TEST(DirectLine, IsComparedOnceWithOwnerOnNextBus) {
  if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  const auto process = startService();
  const auto service = connect();
  Deaths deaths(*service);
  FakeBus bus;
  // Its lock orders the new address before the thread that connects again.
  ZQBusSerivceManager& manager = *ZQBusSerivceManager::initSync(-1);
  testBus().kill();
  bus.accept();
  const Message question = bus.question("GetNameOwner");
  bus.send(nameChange(kPerixName, "", ":1.8"), wire::kDaemon);
  const auto makerIs = [&](pid_t maker) {
    bus.replyNumber(bus.question("GetConnectionUnixProcessID"), static_cast<uint32_t>(maker));
  };
  makerIs(process->pid());
  // Neither an answer that is older than the change nor a known owner leads to another comparison.
  bus.reply(question, "s", Writer().text(":1.5").bytes());
  for (int i = 0; i < 2; ++i) {
    auto asking = soon([&] { return manager.isServiceRegistered("perix"); });
    const Message next = bus.call();
    EXPECT_EQ(next.member, "GetNameOwner");
    bus.reply(next, "s", Writer().text(":1.8").bytes());
    EXPECT_TRUE(asking.get());
  }
  // An outcome is delivered behind the cut of a line.
  Watched<int> outcomes;
  callAsynchronously(*service, "getVmList", counter(outcomes));
  EXPECT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(call(*service, "getVmList", message(int32_t{0}))->type(), 2);

  bus.send(nameChange(kPerixName, ":1.8", ":1.9"), wire::kDaemon);
  makerIs(::getpid());
  EXPECT_TRUE(deaths.waitFor(1));
}

TEST(DirectLine, EndsWithServiceThatDiesDuringItsOpening) {
  if (!usesDirectLines()) GTEST_SKIP() << "ZQBUS_DIRECT is 0";
  const auto process = startService();
  process->pause();
  // Has a copy of every descriptor that goes through the bus until it takes the message: a line
  // that such a copy kept open would not end with the service.
  Peer monitor = Peer::onBus(testBus().address());
  becomeMonitor(monitor);
  auto opening = soon(connect);
  monitor.receiveUntil([](const Message& message) { return message.member == "Open"; });
  process->kill();
  const auto interface = opening.get();
  if (interface == nullptr) return;
  EXPECT_EQ(call(*interface, "getVmList", {})->failure(), ZQBusFailure::PeerGone);
  EXPECT_TRUE(Deaths(*interface).waitFor(1));
}

}  // namespace
}  // namespace zq
