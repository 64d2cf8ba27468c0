// The events that monitor hears, the deaths that it outlives, and its end; other commands that end
// before their time, by a signal or by --timeout.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/perixctl/tool_world.h"
#include "tests/support/watched.h"
#include "tools/perixctl/outcome.h"

namespace zq::ctl {
namespace {

namespace fs = std::filesystem;

// The next event of a `monitor --json`, of that source if a source is given; null if none comes.
Json nextEvent(ChildProcess& monitor, const std::string& source = "") {
  for (;;) {
    const auto line = monitor.outputLine(kPatience);
    if (!line) return {};
    Json event = Json::parse(*line, nullptr, false);
    if (source.empty() || event.at("event") == source) return event;
  }
}

TEST(Monitor, ShowsEachKindOfEvent) {
  const ToolWorld world;
  const auto monitor = world.startReady("monitor --json");
  // The command, null for an event of the command before; the source, "" for any; the members.
  const char* const events[][3] = {
      {"service plug devNumber=9 type=scanner name=Flat", "",
       R"({"word":"arrived","code":6,"record":{"name":"Flat","devNumber":9}})"},
      {nullptr, "", R"({"word":"wants configuration"})"},
      {"device configure win10 Flat", "device",
       R"({"record":{"desktop":"win10","connected":true}})"},
      {nullptr, "configuration", R"({"word":"connected","record":{"isSuccess":1}})"},
      {"printer connect win10 1", "printer",
       R"({"record":{"name":"Front office","desktop":"win10"}})"},
      {"command run version", "command", R"({"record":{"text":"version 7"}})"},
      {"disk command win10 0x100000002 1", "device", R"({"word":"mounted"})"},  // the broadcast
  };
  for (const auto& [command, source, members] : events) {
    if (command != nullptr) world.succeed(command);
    const Json event = nextEvent(*monitor, source);
    Json expected = event;
    expected.merge_patch(Json::parse(members));
    EXPECT_EQ(event, expected);
  }
  monitor->signal(SIGINT);
  EXPECT_EQ(monitor->finish(kPatience).status, 0);
}

TEST(Monitor, OutlivesServiceWithAndWithoutDesktops) {
  for (const bool hasDesktops : {true, false}) {
    ToolWorld world(hasDesktops ? SCENARIO : "/dev/null");
    const auto monitor = world.startReady("monitor --json");
    for (int death = 0; death < 2; ++death) {
      world.service.stop();
      const Json event = nextEvent(*monitor);
      EXPECT_EQ(event["event"], "service") << "told before the service is back";
      EXPECT_EQ(event["word"], "died");
      world.service.start();
      if (hasDesktops) {
        for (const char* name : {"debian", "win10"})
          EXPECT_EQ(nextEvent(*monitor)["desktop"], name);
      }
      EXPECT_EQ(nextEvent(*monitor)["word"], "returned");
      world.succeed("service plug devNumber=20 name=After");
      EXPECT_EQ(nextEvent(*monitor)["record"]["name"], "After");
      EXPECT_EQ(nextEvent(*monitor)["word"], "wants configuration");
    }
  }
}

TEST(Monitor, TellsLossAndReturnOfBus) {
  ToolWorld world;
  const auto monitor = world.startReady("monitor --json --only bus");
  world.service.stopBus();
  EXPECT_EQ(nextEvent(*monitor)["word"], "gone");
  world.service.startBus();
  EXPECT_EQ(nextEvent(*monitor)["word"], "returned");
}

TEST(Monitor, EndsAfterCountOrGivenEvent) {
  const ToolWorld world;
  auto monitor = world.startReady("monitor --count 1");
  world.succeed(R"(service plug name=$'\e]0;\xe2\x80\xaetitle\a')");
  ChildProcess::Result result = monitor->finish(kPatience);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find(R"(\u001b]0;\u202etitle)"), std::string::npos) << result.output;
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1);
  for (const std::string end : {"changed", "0x01"}) {
    monitor =
        world.startReady("monitor --json --only printer,device --desktop win10 --until " + end);
    world.succeed("service plug name=Another");  // in no desktop
    world.succeed("printer connect win10 1");
    result = monitor->finish(kPatience);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(Json::parse(result.output)["record"]["name"], "Front office");
    world.succeed("printer disconnect win10 1");
  }
}

TEST(EarlyEnd, LeavesNoBusAndNoSearch) {
  const ToolWorld world;
  const fs::path directory = world.directory() / "tmp";
  fs::create_directory(directory);
  const Environment there = {{"TMPDIR", directory}};
  for (const char* words : {"--embedded monitor", "service run -- " PERIXCTL " monitor"}) {
    for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
      const auto child = world.startReady(words, there);
      EXPECT_FALSE(fs::is_empty(directory)) << "it is elsewhere";
      child->signal(signal);
      EXPECT_EQ(child->finish(kPatience).status, 0) << words;
      EXPECT_TRUE(fs::is_empty(directory)) << words << ", signal " << signal;
    }
  }
  const char* const late =
      "--timeout 1 --embedded=<(echo timing.unknownHostMs=60000) printer shared search 10.0.0.9";
  EXPECT_EQ(world.run(late, there).status, 3);
  EXPECT_TRUE(fs::is_empty(directory)) << "after a time-out";

  world.startReady("--embedded monitor", there)->kill();
  EXPECT_FALSE(fs::is_empty(directory));
  const fs::path withoutLock = directory / "perix-bus-old";
  fs::create_directory(withoutLock);
  fs::last_write_time(withoutLock, fs::file_time_type::clock::now() - std::chrono::hours(2));
  EXPECT_EQ(world.run("--embedded desktop list", there).status, 0);
  EXPECT_TRUE(fs::is_empty(directory)) << "the next start tidies up";

  world.succeed("service fault set searchSharePrinter drop");
  EXPECT_EQ(world.run("--timeout 1 printer shared search 10.0.0.5").status, 3);
  EXPECT_NE(world.succeed("service calls").find("stopSearchSharePrinter"), std::string::npos);
}

}  // namespace
}  // namespace zq::ctl
