// Commands that end before their time: by a signal, or by --timeout.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/perixctl/tool_world.h"
#include "tests/support/watched.h"

namespace zq::ctl {
namespace {

namespace fs = std::filesystem;

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
  EXPECT_EQ(world.run("--embedded desktop list", there).status, 0);
  EXPECT_TRUE(fs::is_empty(directory)) << "the next start tidies up";

  world.succeed("service fault set searchSharePrinter drop");
  EXPECT_EQ(world.run("--timeout 1 printer shared search 10.0.0.5").status, 3);
  EXPECT_NE(world.succeed("service calls").find("stopSearchSharePrinter"), std::string::npos);
}

}  // namespace
}  // namespace zq::ctl
