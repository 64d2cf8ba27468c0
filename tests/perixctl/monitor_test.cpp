// monitor: what it hears, and through what it lives.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>

#include "tests/perixctl/tool_world.h"
#include "tools/perixctl/outcome.h"

namespace zq::ctl {
namespace {

constexpr std::chrono::seconds kPatience{20};

// The next line of a `monitor --json`, null when there is none in time.
Json nextEvent(ChildProcess& monitor) {
  const auto line = monitor.outputLine(kPatience);
  return line ? Json::parse(*line, nullptr, false) : Json();
}

// The next event from that source; null when there is none in time.
Json nextEvent(ChildProcess& monitor, const std::string& source) {
  Json event;
  do {
    event = nextEvent(monitor);
  } while (!event.is_null() && event.at("event") != source);
  return event;
}

TEST(AMonitor, ShowsEveryKindOfEventWithItsRecordAndDesktopsByName) {
  const ToolWorld world;
  const auto monitor = world.startReady("monitor --json");
  ASSERT_EQ(world.run("service plug devNumber=9 type=scanner name=Flat").status, 0);
  Json event = nextEvent(*monitor);
  EXPECT_EQ(event["word"], "arrived");
  EXPECT_EQ(event["code"], 6);
  EXPECT_EQ(event["record"]["name"], "Flat");
  EXPECT_EQ(event["record"]["devNumber"], 9);
  event = nextEvent(*monitor);
  EXPECT_EQ(event["word"], "wants configuration");
  const std::string source = event["record"]["sourceId"].dump();

  ASSERT_EQ(world.run("device configure win10 " + source).status, 0);
  event = nextEvent(*monitor, "device");
  EXPECT_EQ(event["record"]["desktop"], "win10");
  EXPECT_EQ(event["record"]["connected"], true);
  event = nextEvent(*monitor, "configuration");
  EXPECT_EQ(event["word"], "connected");
  EXPECT_EQ(event["record"]["isSuccess"], 1);

  ASSERT_EQ(world.run("printer connect win10 1").status, 0);
  event = nextEvent(*monitor, "printer");
  EXPECT_EQ(event["record"]["name"], "Front office");
  EXPECT_EQ(event["record"]["desktop"], "win10");

  ASSERT_EQ(world.run("command run version").status, 0);
  EXPECT_EQ(nextEvent(*monitor, "command")["record"]["text"], "version 7");

  ASSERT_EQ(world.run("disk command win10 0x100000002 1").status, 0);
  EXPECT_EQ(nextEvent(*monitor, "device")["word"], "mounted") << "the broadcast";

  monitor->signal(SIGINT);
  EXPECT_EQ(monitor->finish(kPatience).status, 0);
}

TEST(AMonitor, EndsAfterTheLinesItWasAskedForAndEscapesNames) {
  const ToolWorld world;
  const auto monitor = world.startReady("monitor --count 1");
  ASSERT_EQ(world.run(R"(service plug name=$'\e]0;title\a')").status, 0);
  const ChildProcess::Result result = monitor->finish(kPatience);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output.find('\033'), std::string::npos);
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1);
}

void expectNewsAfterTheDeath(const ToolWorld& world, ChildProcess& monitor) {
  EXPECT_EQ(nextEvent(monitor)["word"], "returned");
  ASSERT_EQ(world.run("service plug devNumber=20 name=After").status, 0);
  EXPECT_EQ(nextEvent(monitor)["record"]["name"], "After");
  EXPECT_EQ(nextEvent(monitor)["word"], "wants configuration");
}

TEST(AMonitor, OutlivesTheServiceMoreThanOnceAndTellsEachDesktopsNews) {
  ToolWorld world;
  const auto monitor = world.startReady("monitor --json");
  for (int death = 0; death < 2; ++death) {
    world.service.stop();
    const Json event = nextEvent(*monitor);
    EXPECT_EQ(event["event"], "service") << "told before the service is back";
    EXPECT_EQ(event["word"], "died");
    world.service.start();
    EXPECT_EQ(nextEvent(*monitor)["desktop"], "debian");
    EXPECT_EQ(nextEvent(*monitor)["desktop"], "win10");
    expectNewsAfterTheDeath(world, *monitor);
  }
}

TEST(AMonitor, OutlivesAServiceThatKnowsNoDesktop) {
  ToolWorld world("/dev/null");
  const auto monitor = world.startReady("monitor --json");
  world.service.stop();
  world.service.start();
  EXPECT_EQ(nextEvent(*monitor)["event"], "service");
  expectNewsAfterTheDeath(world, *monitor);
}

TEST(AMonitor, TellsTheLossOfTheBusAndItsReturn) {
  ToolWorld world;
  const auto monitor = world.startReady("monitor --json --only bus");
  world.service.stopBus();
  EXPECT_EQ(nextEvent(*monitor)["word"], "gone");
  world.service.startBus();
  EXPECT_EQ(nextEvent(*monitor)["word"], "returned");
}

TEST(AMonitor, ShowsTheChosenEventsUpToTheOneThatIsWaitedFor) {
  const ToolWorld world;
  for (const std::string end : {"changed", "1"}) {
    const auto monitor =
        world.startReady("monitor --json --only printer,device --desktop win10 --until " + end);
    ASSERT_EQ(world.run("service plug name=Another").status, 0);  // in no desktop
    ASSERT_EQ(world.run("printer connect win10 1").status, 0);
    const ChildProcess::Result result = monitor->finish(kPatience);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(Json::parse(result.output)["record"]["name"], "Front office");
    ASSERT_EQ(world.run("printer disconnect win10 1").status, 0);
  }
}

TEST(TheService, IsGoneAfterTheCommandsThatEndIt) {
  ToolWorld world;
  for (const char* end : {"service crash", "service stop"}) {
    EXPECT_EQ(world.run(end).status, 0);
    EXPECT_EQ(world.run("device list").status, 8);
    world.service.start();
  }
}

}  // namespace
}  // namespace zq::ctl
