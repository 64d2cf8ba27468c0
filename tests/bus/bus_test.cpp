// The bus itself, through its public headers: what a call carries, how it ends, many at once.
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/bus/bus_fixture.h"

namespace zq {
namespace {

TEST(Message, ReadsWrongIndexOrTypeAsNothing) {
  const ZQBusMessage made = message(int32_t{-5}, std::string("text"), bytes("abc"));
  std::string out = "before";
  uint32_t size = 9;
  for (const std::size_t index : {std::size_t{1}, std::size_t{2}, std::size_t{3}, SIZE_MAX}) {
    EXPECT_EQ(made.readInt32(index), 0);
  }
  EXPECT_EQ(made.readString(out, 0), "");
  const auto block = made.readBytes(1, size);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(size, 0U);
  const auto padded = made.readBytes(2, size);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(padded.get())), "abc");
  EXPECT_EQ(padded[ZQBusMessage::kReadable - 1], 0);
}

TEST_F(Bus, CallCarriesEveryArgument) {
  const ZQBusMessage sent = message(
      uint16_t{65535}, int32_t{INT32_MIN}, int64_t{INT64_MIN}, std::string(), std::string("plain"),
      std::string("na\xC3\xAFve \xF0\x9F\x96\xA8"), std::string("\xFF\xFEnot text"),
      std::string("with\0nul", 8), std::string("\xED\xA0\x80 surrogate"),
      std::string("\xEF\xBF\xBE no character"), std::string("cut \xE2\x82"), std::string(300, 'v'),
      bytes(""), bytes(std::string("\0\1\2", 3)), bytes(std::string(100000, 'b')));
  const Reply reply = call(*service, "echo", sent);
  ASSERT_EQ(reply->argCount(), sent.argCount());
  for (std::size_t i = 0; i < sent.argCount(); ++i) {
    const auto* const block = std::get_if<ZQBusBytes>(&sent.arguments()[i]);
    if (block != nullptr) {
      EXPECT_EQ(std::get<ZQBusBytes>(reply->arguments()[i]).view(), block->view()) << i;
    }
  }
  EXPECT_EQ(reply->toDebugString(), "return" + sent.toDebugString().substr(6));
}

TEST_F(Bus, BlockIsReceiversOwnCopy) {
  recorder->answerWith([](const std::shared_ptr<ZQBusCall>& received) {
    uint32_t size = 0;
    received->message().readBytes(0, size)[0] = 'y';
    received->reply(message(int32_t{0}));
  });
  const ZQBusMessage sent = message(bytes(std::string(ZQBusMessage::kReadable, 'x')));
  call(*service, "change", sent);
  EXPECT_EQ(sent.bytesAt(0)->data[0], 'x');
}

TEST_F(Bus, ListOfAnyLengthAndTypesArrivesInOrder) {
  for (const int count : {0, 1, 126, 127, 128, 1000, 65535}) {
    ZQBusMessage list;
    list.appendInt32(count);
    for (int i = 0; i < count; ++i) list.append(bytes(std::to_string(i)));
    const Reply reply = call(*service, "echo", list);
    ASSERT_EQ(reply->argCount(), list.argCount()) << reply->toDebugString().substr(0, 200);
    for (int i = 0; i < count; ++i) {
      const auto index = static_cast<std::size_t>(i) + 1;
      const auto& block = std::get<ZQBusBytes>(reply->arguments()[index]);
      ASSERT_EQ(block.view(), std::to_string(i));
      ASSERT_EQ(block.data[block.size], 0) << "the end of a text";
    }
  }
  ZQBusMessage list;
  for (int i = 0; i < 300; ++i) {
    list.appendInt32(i);
    list.appendString(i % 7 == 0 ? "\xFF" : "text");
    list.append(bytes("block"));
  }
  const Reply reply = call(*service, "echo", list);
  EXPECT_EQ(reply->toDebugString(), "return" + list.toDebugString().substr(6));
}

TEST_F(Bus, TooLargeMessageFailsAlone) {
  const std::string tooLong((std::size_t{64} << 20) + 1, 'x');
  EXPECT_EQ(call(*service, "echo", message(bytes(tooLong)))->failure(), ZQBusFailure::TooLarge);
  EXPECT_EQ(call(*service, "echo", message(tooLong))->failure(), ZQBusFailure::TooLarge);
  recorder->answerWith(message(tooLong));
  EXPECT_EQ(call(*service, "echo", {})->failure(), ZQBusFailure::Service);
  recorder->answerWith(message(int32_t{7}));
  EXPECT_EQ(call(*service, "echo", {})->readInt32(0), 7);
}

TEST_F(Bus, FailuresTellTheirCause) {
  const struct {
    const char* method;
    int timeoutMs;
    ZQBusFailure failure;
    const char* text = nullptr;
  } rows[] = {
      {"echo", 20000, ZQBusFailure::None},
      {"fail", 20000, ZQBusFailure::Service, "no luck"},
      {"no such name", 20000, ZQBusFailure::Unusable},
      {"hang", 50, ZQBusFailure::TimedOut, "no answer within 50 ms"},
      {"hang", 0, ZQBusFailure::TimedOut, "no answer within 0 ms"},
      {"last", 20000, ZQBusFailure::None},
      {"gone", 20000, ZQBusFailure::PeerGone},
  };
  Watched<std::vector<Reply>> outcomes;
  for (const auto& [method, timeoutMs, failure, words] : rows) {
    SCOPED_TRACE(method);
    if (failure == ZQBusFailure::PeerGone) {
      const std::vector<std::string> sent = {"echo()", "echo()", "fail()", "fail()", "hang()",
                                             "hang()", "hang()", "hang()", "last()", "last()"};
      EXPECT_EQ(recorder->takeCalls(), sent);
      recorder.reset();
    }
    const Reply blocking = call(*service, method, {}, timeoutMs);
    callAsynchronously(
        *service, method, [&](const Reply& reply) { outcomes.append(reply); }, timeoutMs);
    ASSERT_TRUE(outcomes.waitForSize(1));
    for (const Reply& reply : {blocking, outcomes.take().front()}) {
      EXPECT_EQ(reply->failure(), failure);
      EXPECT_EQ(reply->type(), failure == ZQBusFailure::None ? 2 : 3);
      if (words != nullptr) {
        EXPECT_EQ(text(reply), words);
      }
    }
    release();  // answers that come too late
  }
  manager.waitForCallbacks();
  EXPECT_TRUE(outcomes.get().empty());
}

/// Who sleeps on the connection when a call with an early deadline is made, and must wake for it.
enum class Sleeper { LibraryThread, Caller, CallerThatLeaves };

TEST_F(Bus, EarlierDeadlineWakesSleeper) {
  constexpr int kBeyondPatienceMs = 100000;
  for (const auto sleeper : {Sleeper::LibraryThread, Sleeper::Caller, Sleeper::CallerThatLeaves}) {
    std::future<Reply> hung;
    if (sleeper == Sleeper::Caller) hung = hang(kBeyondPatienceMs);
    if (sleeper == Sleeper::CallerThatLeaves) hung = hang(100);
    Watched<int> ends;
    callAsynchronously(*service, "hang", counter(ends),
                       sleeper == Sleeper::CallerThatLeaves ? 300 : 50);
    EXPECT_TRUE(ends.waitFor(1)) << static_cast<int>(sleeper);
    release();
  }
}

TEST_F(Bus, ThreadsGetTheirOwnReplies) {
  constexpr int kThreads = 8;
  constexpr int kCalls = 300;
  std::vector<std::future<int>> wrong;
  for (int thread = 0; thread < kThreads; ++thread) {
    wrong.push_back(soon([this, thread] {
      int mismatches = 0;
      for (int i = 0; i < kCalls; ++i) {
        const int value = thread * kCalls + i;
        // Some give up at once: a leader that leaves must hand its role on.
        const int timeoutMs = i % 10 == 9 ? 0 : 20000;
        const Reply reply = call(*service, "echo", message(value), timeoutMs);
        if (timeoutMs > 0 && reply->readInt32(0) != value) ++mismatches;
      }
      return mismatches;
    }));
  }
  for (auto& one : wrong) EXPECT_EQ(one.get(), 0);
}

// --- Events --------------------------------------------------------------------------------------

TEST_F(Bus, EventsArriveDuringCallAndCallbackMayCall) {
  Watched<std::vector<int>> answers;
  listen(*service, [&](const Reply& event) {
    const Reply reply = call(*service, "echo", *event, 5000);
    answers.append(reply->readInt32(1));
    if (event->readInt32(1) == 1) throw 7;
    if (event->readInt32(1) == 2) throw std::runtime_error("out of here");
  });
  auto hung = hang();
  for (const int kind : {1, 2, 3}) recorder->sendEvent(0, kind);
  ASSERT_TRUE(answers.waitForSize(3));
  EXPECT_EQ(answers.get(), (std::vector<int>{1, 2, 3}));
  release();
  EXPECT_EQ(hung.get()->readInt32(0), 1);
}

TEST_F(Bus, FloodIsDeliveredInOrderOrCounted) {
  const struct {
    int events;
    std::size_t size;
    int atOnce;  ///< before the client has to read them
  } floods[] = {{100000, 0, 100000}, {100, 1 << 20, 16}};
  Watched<bool> open;
  Watched<std::vector<int>> heard;
  listen(*service, [&](const Reply& event) {
    ASSERT_TRUE(open.waitFor(true));
    heard.append(event->readInt32(0));
  });
  for (const auto& [events, size, atOnce] : floods) {
    SCOPED_TRACE(size);
    open.set(false);
    const uint64_t droppedBefore = manager.droppedEvents();
    const long before = residentKib();
    auto hung = hang();
    const auto block = bytes(std::string(size, 'x'));
    for (int i = 0; i < events; ++i) {
      recorder->bus().sendEvent("perixevent", message(i, block));
      if (i % atOnce == atOnce - 1) call(*service, "echo", {});
    }
    release();
    EXPECT_EQ(hung.get()->readInt32(0), 1);  // behind every event on the same wire
    EXPECT_LT(residentKib() - before, 400 * 1024);
    const std::size_t dropped = manager.droppedEvents() - droppedBefore;
    EXPECT_GT(dropped, 0U);
    open.set(true);
    ASSERT_TRUE(heard.waitForSize(static_cast<std::size_t>(events) - dropped));
    const auto order = heard.take();
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  }
}

TEST_F(Bus, EventsOfAnyShapeArriveInOrder) {
  ZQBusMessage many;
  for (int i = 0; i < 150; ++i) many.appendInt32(i);
  const std::vector<ZQBusMessage> shapes = {
      message(bytes(std::string(3 << 20, 'b'))),  // takes its time, and the others wait behind it
      message(),
      message(int32_t{-7}, uint16_t{9}, int64_t{INT64_MIN}, std::string("text")),
      message(std::monostate{}),  // cannot be sent, and takes no other with it
      message(bytes("one"), bytes(""), bytes(std::string(2000, 'c'))),
      message(std::string("\xFF no text"), int32_t{1}, int32_t{2}),
      many,
      message(int32_t{3}),
  };
  Watched<std::vector<std::string>> heard;
  listen(*service, [&](const Reply& event) { heard.append(event->toDebugString()); });
  std::vector<std::string> want;
  for (int round = 0; round < 20; ++round) {
    for (const ZQBusMessage& shape : shapes) {
      recorder->bus().sendEvent("perixevent", shape);
      const std::string arguments = shape.toDebugString().substr(std::strlen("return"));
      if (arguments != "(?)") want.push_back("event perixevent" + arguments);
    }
  }
  EXPECT_TRUE(heard.waitForSize(want.size()));
  EXPECT_EQ(heard.get(), want);
}

TEST_F(Bus, RemovedListenerReceivesNoEvent) {
  Watched<int> first;
  Watched<int> second;
  auto* const removed = new ZQBusEventCallback(counter(first));
  service->addEventListener("perixevent", removed, ZQBusSecurityFlags::TrustedPeer);
  listen(*service, counter(second));
  recorder->sendEvent(0, 1);
  ASSERT_TRUE(first.waitFor(1));
  ASSERT_TRUE(second.waitFor(1));
  service->removeEventListener("perixevent", removed);
  recorder->sendEvent(0, 2);
  ASSERT_TRUE(second.waitFor(2));
  EXPECT_EQ(first.get(), 1);
  EXPECT_FALSE(service->addEventListener("perixevent", nullptr, ZQBusSecurityFlags::TrustedPeer));
}

}  // namespace
}  // namespace zq
