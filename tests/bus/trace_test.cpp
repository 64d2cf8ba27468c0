// The trace: what it holds of each thing that passes, its file, and its lines.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <thread>
#include <utility>

#include "tests/bus/bus_fixture.h"
#include "tests/support/blocked_thread.h"
#include "tests/support/bus_world.h"
#include "tests/support/trace_text.h"
#include "zqbus/trace.h"

namespace zq {
namespace {

namespace fs = std::filesystem;
using Kind = ZQBusTraceEntry::Kind;

fs::path traceFile() {
  return fs::path(std::getenv("XDG_STATE_HOME")) / "trace";
}

TEST(Trace, HoldsTrafficOfBothEndsOnBothWays) {
  Watched<std::vector<std::string>> seen;
  setZQBusTraceSink([&](const ZQBusTraceEntry& entry) {
    if (entry.way && entry.kind != Kind::Broadcast && !entry.service.empty()) {
      EXPECT_EQ(*entry.way, usesDirectLines() ? ZQBusWay::Direct : ZQBusWay::Broker);
    }
    seen.append(normalised(toJson(entry)));
  });
  const auto next = [&](std::size_t count) {
    EXPECT_TRUE(seen.waitForSize(count));
    auto lines = seen.take();
    std::sort(lines.begin(), lines.end());
    return lines;
  };
  using Lines = std::vector<std::string>;

  auto recorder = std::make_unique<RecordingService>();
  auto service = connect();
  Watched<int> heard;
  ASSERT_TRUE(listen(*service, counter(heard), "news"));
  EXPECT_EQ(next(2), (Lines{R"({"kind":"connection","direction":"out","service":"perix"})",
                            R"({"kind":"connection","direction":"out"})"}));

  auto request = service->makeMethodCallMessage("ask");
  request->appendString("open");
  request->appendBytes("token", 5);
  request->markSecret();
  service->callWithReplyBlocking(request, 5000);
  const std::string ask =
      R"(service":"perix","name":"ask","arguments":[{"s":"open"},{"secret":5}],"reply":[{"i":0}]})";
  const auto asked = next(2);
  EXPECT_EQ(asked[1], R"({"kind":"call","direction":"out",")" + ask);
  // The service in this process was not told that the token is secret.
  EXPECT_NE(asked[0].find(R"({"ay":"746f6b656e"})"), std::string::npos) << asked[0];

  recorder->bus().sendEvent("news", message(int32_t{7}));
  EXPECT_EQ(
      next(2),
      (Lines{
          R"({"kind":"event","direction":"in","service":"perix","name":"news","arguments":[{"i":7}]})",
          R"({"kind":"event","direction":"out","service":"perix","name":"news","arguments":[{"i":7}]})"}));

  recorder->answerWith([](const auto& call) { call->fail("no luck"); });
  service->callWithReply(request, {}, 5000);
  EXPECT_NE(next(2)[1].find(R"("asynchronous":true,"failure":"service","text":"no luck")"),
            std::string::npos);

  recorder.reset();
  EXPECT_EQ(next(1), (Lines{R"({"kind":"death","direction":"in","service":"perix"})"}));
  setZQBusTraceSink({});
}

TEST(Trace, ReadsBackEachLineThatItWrites) {
  ZQBusTraceEntry entry;
  entry.wall =
      std::chrono::sys_days(std::chrono::year(2026) / 2 / 28) + std::chrono::microseconds(1234567);
  entry.way = ZQBusWay::Direct;
  entry.duration = std::chrono::microseconds(410);
  entry.content = ZQBusMessage(ZQBusMessageType::MethodCall, "connectDevice");
  const ZQBusMessage arguments =
      message(uint16_t{65535}, int32_t{INT32_MIN}, int64_t{INT64_MIN}, std::string("na\xC3\xAFve"),
              std::string("\xFF not text"), std::string(70000, 'v'), bytes(std::string("\0\1", 2)),
              bytes(std::string(5000, 'b')));
  for (const auto& argument : arguments.arguments()) entry.content.append(argument);
  entry.content.append(std::monostate());
  entry.reply = ZQBusMessage::failed(ZQBusFailure::TimedOut, "timed out after 3000 ms");
  const std::string line = toJson(entry);
  ZQBusTraceEntry read;
  std::string error;
  ASSERT_TRUE(fromJson(line, read, error)) << error;
  EXPECT_EQ(toJson(read), line);
  EXPECT_EQ(read.reply.failure(), ZQBusFailure::TimedOut);
  EXPECT_EQ(read.content.bytesAt(7)->size, 5000U);

  const std::string head = R"({"time":"2026-02-28T00:00:01.234567Z","ns":1,"process":1,"kind":)";
  const std::pair<std::string, std::string> mistakes[] = {
      {"", "not JSON"},
      {R"({"kind":"call\u001b[2J"})", R"(call\x1b[2J)"},
      {"[]", "one object a line"},
      {"{}", "key 'kind' not found"},
      {R"({"kind":"end"})", "unknown word"},
      {head + R"("call","name":"m","arguments":{}})", "arguments are a list"},
      {head + R"("call","name":"m","arguments":[{"i":2147483648}]})", "out of range"},
      {head + R"("call","name":"m","arguments":[{"q":-1}]})", "out of range"},
      {head + R"("call","name":"m","arguments":[{"i":"1"}]})", "a number is expected"},
      {head + R"("call","name":"m","arguments":[{"ay":"0"}]})", "not hexadecimal"},
      {head + R"("call","name":"m","arguments":[{"ay":"0g"}]})", "not hexadecimal"},
      {head + R"("call","name":"m","arguments":[{"ay":"00","size":99999999999}]})", "too large"},
      {head + R"("call","name":"m","arguments":[{"ay":"00","size":6e90}]})",
       "a number is expected"},
      {head + R"("call","name":"m","arguments":[{"h":0}]})", "unknown type"},
      {head + R"("event","way":"by post"})", "unknown word"},
      {R"({"time":"9999-01-01T00:00:00.000000Z","ns":1,"process":1,"kind":"call"})",
       "out of range"},
      {R"({"time":"2026-02-28T00:00:01.234567Z","ns":-1,"process":1,"kind":"call"})", "negative"},
      {R"({"time":"yesterday","ns":1,"process":1,"kind":"call"})", "not a time"},
  };
  for (const auto& [bad, words] : mistakes) {
    EXPECT_FALSE(fromJson(bad, read, error)) << bad;
    EXPECT_NE(error.find(words), std::string::npos) << bad << ": " << error;
  }
  EXPECT_EQ(toJson(read), line) << "unchanged by what cannot be read";
}

TEST(Trace, IsWrittenToRegularFileOfThisUserAlone) {
  const fs::path file = (testBus(), traceFile());
  std::string error;
  ASSERT_TRUE(startZQBusTrace(file, error)) << error;
  {
    RecordingService recorder;
    connect();
  }
  stopZQBusTrace();
  const auto lines = linesOf(file);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.back(),
            R"({"kind":"end","written":)" + std::to_string(lines.size() - 1) + R"(,"dropped":0})");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

  const fs::path link = file.string() + "-link";
  const fs::path pipe = file.string() + "-pipe";
  fs::create_symlink(file, link);
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const fs::path& other : {link, pipe, file.parent_path(), fs::path("/dev/null")}) {
    EXPECT_FALSE(startZQBusTrace(other, error)) << other;
    EXPECT_NE(error.find(other.string()), std::string::npos) << error;
  }
}

TEST(Trace, EndsWhileEntryIsAdded) {
  const fs::path file = (testBus(), traceFile());
  std::string error;
  ASSERT_TRUE(startZQBusTrace(file, error)) << error;
  BlockingPoint adding;
  setZQBusTraceSink([&](const ZQBusTraceEntry&) { adding.stop(); });
  adding.during(connect, [&] {
    stopZQBusTrace();
    EXPECT_TRUE(linesOf(file).back().starts_with(R"({"kind":"end")"));
  });
}

TEST(Trace, CountsLinesThatDiskDoesNotTake) {
  const fs::path file = (testBus(), traceFile());
  std::string error;
  static std::atomic<int> told = 0;
  setZQBusLogSink([](const char* line) {
    if (std::string(line).starts_with("the trace lacks ")) ++told;
  });
  RecordingService recorder;
  ASSERT_TRUE(startZQBusTrace(file, error)) << error;
  const auto service = connect();
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit full{4096, before.rlim_max};
  std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
  // Until the disk has taken a part of a line, which was taken back: the file has changed twice and
  // has not grown. Then there is room again.
  int calls = 0;
  int changes = 0;
  struct stat last {};
  struct stat now {};
  ASSERT_EQ(::stat(file.c_str(), &now), 0);
  for (; changes < 2 && calls < 5000; ++calls) {
    EXPECT_EQ(call(*service, "ask", {})->type(), 2);
    last = std::exchange(now, {});
    ASSERT_EQ(::stat(file.c_str(), &now), 0);
    changes =
        now.st_size > last.st_size ? 0 : changes + (now.st_mtim.tv_nsec != last.st_mtim.tv_nsec);
  }
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  call(*service, "last", {});
  stopZQBusTrace();
  const auto lines = linesOf(file);
  int dropped = 0;
  int written = 0;
  ASSERT_EQ(std::sscanf(lines.back().c_str(), R"({"kind":"end","written":%d,"dropped":%d})",
                        &written, &dropped),
            2)
      << lines.back();
  EXPECT_GT(dropped, 0);
  EXPECT_EQ(written + dropped, calls + 1 + 2) << "the calls, and two connections";
  EXPECT_EQ(told, 1);
  std::vector<ZQBusTraceEntry> entries;
  EXPECT_TRUE(readZQBusTrace(file, entries, error)) << error;
}

}  // namespace
}  // namespace zq
