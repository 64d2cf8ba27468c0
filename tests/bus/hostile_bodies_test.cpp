// Peers that send what no library sends: each harms nobody but itself.

#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "tests/bus/bus_fixture.h"
#include "tests/bus/hostile_memory.h"
#include "tests/bus/peers.h"
#include "tests/support/open_bus.h"

namespace zq {
namespace {

using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

// What a message of a few hundred bytes may cost while it is handled.
constexpr std::size_t kSomeMemory = std::size_t{1} << 20;
// More than a new connection has, and fewer than come with a message that is to lose them.
constexpr int kSomeDescriptors = 14;
/// What becomes of an odd body on the way that this process tests. A line carries no descriptors,
/// and breaks; on the bus, the daemon cuts the sender of what is malformed.
Fate fateAtService(const OddBody& body) {
  const bool passes = usesDirectLines() ? body.sentDescriptors == 0 : body.passesBus;
  return passes ? body.fate : Fate::Cut;
}

/// The daemon keeps messages with descriptors from clients, which take none.
Fate fateAtClient(const OddBody& body) {
  const Fate fate = fateAtService(body);
  return fate != Fate::Cut && body.sentDescriptors > 0 ? Fate::Dropped : fate;
}

/// Whether dbus-broker handles a body in its own way (docs/bus.md). It ends the connection of a
/// client that takes no descriptors, and drops the good reply that follows a dropped reply.
bool isOtherOnDbusBroker(const OddBody& body) {
  const bool droppedByClient = body.fate == Fate::Dropped && body.passesBus;
  return usesDbusBroker() && !usesDirectLines() && (body.sentDescriptors > 0 || droppedByClient);
}

std::vector<int> descriptorsFor(const OddBody& body) {
  return std::vector<int>(body.sentDescriptors, STDIN_FILENO);
}

bool send(Peer& peer, Message message, const OddBody& body) {
  setBody(message, body);
  return peer.send(message, descriptorsFor(body));
}

/// Calls `check` for each body. Whatever happens then, its memory is bounded and its descriptors
/// are closed. The name of the last is printed in front of a crash.
template <typename Check>
void forEachOddBody(Check check) {
  for (const OddBody& body : oddBodies()) {
    if (isOtherOnDbusBroker(body)) continue;
    SCOPED_TRACE(body.name);
    std::fprintf(stderr, "%s\n", body.name);
    resetPeak();
    const std::size_t memory = liveBytes();
    const int descriptors = openDescriptors();
    check(body);
    EXPECT_LT(peakBytes(), memory + kSomeMemory);
    EXPECT_LT(openDescriptors(), descriptors + kSomeDescriptors);
  }
}

TEST(OddReply, EndsItsCallAlone) {
  std::optional<FakeService> service;
  forEachOddBody([&](const OddBody& body) {
    if (!service) service.emplace();
    auto reply = callSoon(service->client());
    const auto call = service->nextCall();
    ASSERT_TRUE(call);
    send(service->way(), Message::replyTo(*call), body);
    service->answerWell(*call);
    const Fate fate = fateOf(reply.get());
    EXPECT_EQ(fate, fateAtClient(body));
    if (fate == Fate::Cut) return service.reset();
    reply = callSoon(service->client());
    service->answerWell(*service->nextCall());
    EXPECT_TRUE(isGood(reply.get()));
  });
}

/// Counts the events that a client hears, apart from those with kGoodAnswer behind the odd ones.
class Heard {
 public:
  Listener listener() {
    return [this](const Reply& event) {
      const bool good = event->argCount() == 1 && event->readInt32(0) == kGoodAnswer;
      counts_.change([&](Counts& counts) { ++(good ? counts.good : counts.odd); });
    };
  }
  /// What became of an odd event since the last time, once a good one was heard behind it.
  const char* fate() {
    EXPECT_TRUE(counts_.wait([](const Counts& counts) { return counts.good > 0; }));
    return counts_.take().odd > 0 ? "heard" : "not heard";
  }

 private:
  struct Counts {
    int good = 0;
    int odd = 0;
  };
  Watched<Counts> counts_;
};

const char* hearingOf(Fate fate) {
  return fate == Fate::Read ? "heard" : "not heard";
}

void sendGood(Peer& peer, Message message) {
  peer.send(message.with("i", Writer().number(4, kGoodAnswer).bytes()));
}

const Message kEvent = Message::signal(kPerixPath, kPerixName, "perixevent");

TEST(OddEvent, IsDeliveredOrLogged) {
  static std::atomic<int> linesLogged = 0;
  setZQBusLogSink([](const char*) { ++linesLogged; });
  Heard heard;
  Watched<int> deaths;
  std::optional<FakeService> service;
  forEachOddBody([&](const OddBody& body) {
    if (!service) {
      service.emplace();
      listen(service->client(), heard.listener());
      service->client().setDeathCallback([&] { deaths.increment(); });
    }
    send(service->way(), kEvent, body);
    if (fateAtClient(body) == Fate::Cut) {
      EXPECT_TRUE(deaths.waitFor(1));
      deaths.set(0);
      return service.reset();
    }
    sendGood(service->way(), kEvent);
    EXPECT_STREQ(heard.fate(), hearingOf(fateAtClient(body)));
  });
  EXPECT_GT(linesLogged, 0);
}

TEST(ForeignMessage, IsIgnoredUnread) {
  if (usesDirectLines()) GTEST_SKIP() << "no stranger reaches a line";
  Heard heard;
  FakeService service;
  listen(service.client(), heard.listener());
  Peer stranger = Peer::onBus(testBus().address());
  forEachOddBody([&](const OddBody& body) {
    if (!body.passesBus) return;
    auto reply = callSoon(service.client());
    const auto call = service.nextCall();
    const std::string client = service.clientName();
    for (Message message : {Message::replyTo(*call), Message::replyTo(*call, Type::Error), kEvent,
                            nameChange("", "", "")}) {
      send(stranger, message.to(client), body);
    }
    // The answer comes behind what the client has made of those.
    const auto answer =
        stranger.ask(Message::call("/", "org.freedesktop.DBus.Peer", "Ping").to(client));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, Type::Return);
    service.answerWell(*call);
    EXPECT_TRUE(isGood(reply.get()));
    sendGood(service.way(), kEvent);
    EXPECT_STREQ(heard.fate(), "not heard");
  });
}

TEST(OddCall, IsAnsweredOrRefused) {
  RecordingService service;
  std::optional<FakeClient> client;
  forEachOddBody([&](const OddBody& body) {
    // The service must take descriptors on the bus, and sd-bus (252) never closes those of a
    // message that it drops.
    const bool leaks = body.fate == Fate::Dropped && body.passesBus && body.sentDescriptors > 0;
    if (leaks && !usesDirectLines()) return;
    if (!client) client.emplace();
    Message call = perixCall("odd");
    setBody(call, body);
    const Fate fate =
        fateOfCall(client->way(), call.serial, wire::bytesOf(call), descriptorsFor(body));
    EXPECT_EQ(fate, fateAtService(body));
    if (fate == Fate::Cut) client.reset();
  });
}

TEST(DecodedMessage, TakesBoundedMemory) {
  for (const OddBody& body : thriftyBodies()) {
    SCOPED_TRACE(body.name);
    const std::size_t allowance = 12 * body.content.bytes().size() + 4096;
    {
      FakeService service;
      auto reply = callSoon(service.client());
      const auto call = service.nextCall();
      const std::size_t before = liveBytes();
      send(service.way(), Message::replyTo(*call), body);
      const Reply kept = reply.get();
      EXPECT_EQ(kept->type(), 2);
      EXPECT_LE(liveBytes(), before + allowance);
    }
    RecordingService service;
    Watched<std::shared_ptr<ZQBusCall>> received;
    service.answerWith([&](const std::shared_ptr<ZQBusCall>& call) { received.set(call); });
    FakeClient client;
    const std::size_t before = liveBytes();
    send(client.way(), perixCall("odd"), body);
    EXPECT_TRUE(received.wait([](const auto& kept) { return kept != nullptr; }));
    EXPECT_LE(liveBytes(), before + allowance);
  }
}

TEST(DecodedMessage, HoldsBoundedNumberOfValues) {
  constexpr uint32_t kEmptyBlocks = 4 * ((1U << 20) + 1);  // as they stand on the wire, in bytes
  const std::string list =
      Writer().number(4, kEmptyBlocks).bytes() + std::string(kEmptyBlocks, '\0');
  FakeService service;
  auto reply = callSoon(service.client());
  service.way().send(Message::replyTo(*service.nextCall()).with("aay", list));
  EXPECT_EQ(reply.get()->failure(), ZQBusFailure::Unreadable);
}

}  // namespace
}  // namespace zq
