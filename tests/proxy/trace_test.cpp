// Traces of the operations, played to the client again.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "perix/failure.h"
#include "tests/proxy/wire_table.h"
#include "tests/support/bus_world.h"
#include "zqbus/trace.h"

namespace zq {
namespace {

std::string fileCalled(const std::string& name) {
  testBus();
  return std::filesystem::path(std::getenv("XDG_STATE_HOME")) / name;
}

/// Runs each operation of the table, `prepare` before it.
void runTable(const std::function<void(const WireRow&)>& prepare) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  for (const NamedWireRow& named : wireTable()) {
    prepare(named.row);
    EXPECT_EQ(named.row.run(proxy), named.row.result) << named.name;
    proxy.OnFocusChanged("", 0, 0);  // behind what was sent without waiting
  }
}

TEST(Replay, RepeatsResultOfEachOperation) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  std::string file = fileCalled("wire");
  std::string error;
  ASSERT_TRUE(startZQBusTrace(file, error)) << error;
  {
    RecordingService service;
    runTable([&](const WireRow& row) { service.answerWith(row.reply); });
    proxy.ReleaseService();
  }
  stopZQBusTrace();
  const auto replay = startService({"--replay", file, "--speed", "0"});
  runTable([](const WireRow&) {});
  EXPECT_EQ(proxy.DeletePrinter("other"), -1);
  EXPECT_EQ(PerixLastFailure().text,
            "not recorded: call deletePrinter(s:\"other\"); the nearest recorded one is call "
            "deletePrinter(s:\"a\")");
  EXPECT_EQ(proxy.DeletePrinter("a"), 5);
  replay->signal(SIGTERM);
  EXPECT_EQ(replay->wait(), 0);
  EXPECT_EQ(replay->errorText(),
            "played 2 times: call deletePrinter(s:\"a\")\nnot recorded: call "
            "deletePrinter(s:\"other\")\n");
}

TEST(Replay, KeepsDistanceOfEvents) {
  const std::string head =
      R"({"time":"2026-02-28T00:00:01.000000Z","process":1,"service":"perix","direction":)";
  const std::string file = fileCalled("events");
  std::ofstream trace(file);
  const auto event = [&](const char* ns, int connection, int kind, const char* device) {
    trace << head << R"("in","kind":"event","name":"perixevent","ns":)" << ns << R"(,"connection":)"
          << connection << R"(,"arguments":[{"i":0},{"i":)" << kind << R"(},{"ay":")" << device
          << R"("}]})" << '\n';
  };
  trace << head << R"("out","ns":1000000000,"kind":"call","name":"resetService","arguments":[],)"
        << R"("duration":1000000,"reply":[{"i":3}]})" << '\n'
        << head << R"("out","ns":1300000000,"kind":"call","name":"diagnose",)"
        << R"("arguments":[{"i":3}],"duration":1,"reply":[{"i":0}]})" << '\n';
  event("1200000000", 1, 6, "0700");
  // Two connections hear two events of the same content.
  for (const int connection : {1, 2, 1, 2}) event("1250000000", connection, 7, "0800");
  event("1260000000", 1, 6, "0900");
  trace.close();
  const auto replay = startService({"--replay", file});
  PerixProxy& proxy = *PerixProxy::getInstance();
  static Watched<std::vector<int>> heard;
  proxy.RegisterDeviceCallback(
      [](uint16_t code, CommonDevice* device, void*) {
        heard.change([&](auto& events) { events.push_back(100 * code + device->devNumber); });
        return 0;
      },
      &heard);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(proxy.ResetService(), 3);
  EXPECT_TRUE(
      heard.wait([](const auto& events) { return !events.empty() && events.back() == 609; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(250));
  proxy.UnregisterDeviceCallback(&heard);
  EXPECT_EQ(heard.get(), (std::vector<int>{607, 708, 708, 609}));
  proxy.ReleaseService();
  replay->signal(SIGTERM);
  EXPECT_EQ(replay->wait(), 0);
  EXPECT_EQ(replay->errorText(), "not played: call diagnose(i:3)\n");
}

}  // namespace
}  // namespace zq
