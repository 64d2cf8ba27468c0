// Whom the service serves, whatever others of its bus say and in which order: the bus is the test.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

using wire::Message;
using wire::Type;
using wire::Writer;

constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char kTooMuch[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char kForger[] = ":1.66";
constexpr char kClient[] = ":1.7";
constexpr char kDaemon[] = "org.freedesktop.DBus";

std::string body(uint32_t number) {
  return Writer().number(4, number).bytes();
}

/// "" for a return, else the error's name.
std::string outcomeOf(const Message& answer) {
  return answer.type == Type::Return ? "" : answer.errorName;
}

TEST(ServiceTrust, ServesItsUserAlone) {
  FakeBus bus;
  const auto service = bus.start();
  int number = 10;
  for (const Verdict& verdict : verdicts()) {
    SCOPED_TRACE(verdict.name);
    const std::string caller = ":1." + std::to_string(++number);
    bus.send(perixMethod("echo").with("u", body(7)), caller);
    verdict.give(bus, bus.question("GetConnectionUnixUser"));
    EXPECT_EQ(outcomeOf(bus.answer()), verdict.trusted ? "" : kDenied);

    const std::string wisher = ":1." + std::to_string(++number);
    LineRequest request;
    bus.send(request.call, wisher, std::array{request.theirs.get()});
    verdict.give(bus, bus.question("GetConnectionUnixUser"));
    EXPECT_EQ(outcomeOf(bus.answer()), verdict.trusted ? "" : kDenied);
    request.theirs.reset();
    EXPECT_EQ(static_cast<bool>(wire::Peer(std::move(request.ours)).takeDescriptor()),
              verdict.trusted);
  }
}

TEST(ServiceTrust, DropsCallWithoutSender) {
  FakeBus bus;
  const auto service = bus.start();
  bus.send(perixMethod("echo").with("u", body(1)), "");
  bus.send(LineRequest().call, "");
  bus.send(perixMethod("echo").with("u", body(2)), kClient);
  bus.replyNumber(bus.question("GetConnectionUnixUser"), ::geteuid());
  EXPECT_EQ(bus.answer().body, body(2));
}

TEST(ServiceTrust, BoundsCallsThatWaitForCheck) {
  constexpr uint32_t kMost = 32;
  FakeBus bus;
  const auto service = bus.start();
  int before = 0;
  for (uint32_t i = 0; i <= kMost; ++i) {
    LineRequest request;
    if (i < 3) {
      bus.send(perixMethod("echo").with("u", body(i)), kClient);
    } else {
      bus.send(request.call, kClient, std::array{request.theirs.get()});
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
  bus.replyNumber(bus.question("GetConnectionUnixUser"), ::geteuid());
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(bus.answer().body, body(i));
  bus.ping();
  EXPECT_LE(openDescriptors(), before);
}

TEST(ServiceTrust, ChecksManyListenersAtOnce) {
  constexpr std::size_t kListeners = 1000;
  FakeBus bus;
  const auto service = bus.start();
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

TEST(ServiceTrust, RefusesDescriptors) {
  FakeBus bus;
  const auto service = bus.start();
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
  bus.replyNumber(bus.question("GetConnectionUnixUser"), ::geteuid());
  EXPECT_EQ(bus.answer().body, body(1));
  bus.ping();
  EXPECT_EQ(openDescriptors(), before + 2);
}

TEST(ServiceTrust, RefusesCallsBeforeItHasName) {
  FakeBus bus;
  auto claimed = FakeBus::claim();
  const Message claim = bus.welcome();
  bus.send(perixMethod("echo"), kClient);
  EXPECT_EQ(outcomeOf(bus.answer()), "org.freedesktop.DBus.Error.ServiceUnknown");
  bus.replyNumber(claim, 1);
  EXPECT_NE(claimed.get(), nullptr);
}

TEST(ServiceTrust, BelievesDaemonAloneAboutName) {
  const struct {
    const char* name;
    std::function<void(FakeBus&, const Message&)> answer;
    const char* error;
  } rows[] = {
      {"another owner", [](FakeBus& bus, const Message& claim) { bus.replyNumber(claim, 3); },
       "org.zqbus.perix is owned by another process"},
      {"a forger's yes",
       [](FakeBus& bus, const Message& claim) {
         bus.send(Message::replyTo(claim).with("u", body(1)), kForger);
         bus.replyNumber(claim, 3);
       },
       "org.zqbus.perix is owned by another process"},
      {"no right to it", [](FakeBus& bus, const Message& claim) { bus.fail(claim); },
       "org.zqbus.perix: Input/output error"},
      {"nothing that can be read",
       [](FakeBus& bus, const Message& claim) {
         bus.reply(claim, "s", Writer().text("1").bytes());
       },
       "org.zqbus.perix: Bad message"},
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

/// What says that a client is gone, and whether it is believed.
struct Departure {
  const char* name;
  std::function<void(FakeBus&, const Message& hasOwner)> tell;
  bool isBelieved;
};

Message leaves(const std::string& client) {
  return Message::signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged")
      .with("sss", Writer().text(client).text(client).text("").bytes());
}

TEST(ServiceTrust, SendsEventsOnBusForConnectedClients) {
  const Departure rows[] = {
      {"it is there", [](FakeBus& bus, const Message& asked) { bus.reply(asked, "b", body(1)); },
       false},
      {"it left before", [](FakeBus& bus, const Message& asked) { bus.reply(asked, "b", body(0)); },
       true},
      {"it leaves",
       [](FakeBus& bus, const Message& asked) {
         bus.reply(asked, "b", body(1));
         bus.send(leaves(kClient), kDaemon);
       },
       true},
      {"another one leaves",
       [](FakeBus& bus, const Message& asked) {
         bus.reply(asked, "b", body(1));
         bus.send(leaves(":1.8"), kDaemon);
       },
       false},
      {"a forger says so",
       [](FakeBus& bus, const Message& asked) {
         bus.send(Message::replyTo(asked).with("b", body(0)), kForger);
         bus.reply(asked, "b", body(1));
         bus.send(leaves(kClient), kForger);
       },
       false},
  };
  for (const Departure& row : rows) {
    SCOPED_TRACE(row.name);
    FakeBus bus;
    const auto service = bus.start();
    wire::Peer line = bus.openLine(":1.9");
    ASSERT_TRUE(line.greet());
    bus.send(perixMethod("echo"), kClient);
    bus.replyNumber(bus.question("GetConnectionUnixUser"), ::geteuid());
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
