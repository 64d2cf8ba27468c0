// Commands that a signal ends before their time.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/perixctl/tool_world.h"

namespace zq::ctl {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{20};

// perixctl with a directory for temporary files of its own, inside that of a private bus.
class EarlyEnd : public testing::Test {
 protected:
  EarlyEnd() { fs::create_directory(temporary_); }

  // Starts it, and returns once it writes to descriptor 3.
  std::unique_ptr<ChildProcess> start(const std::string& words) const {
    ChildProcess::Options options;
    options.arguments = {"bash", "-c", "exec " PERIXCTL " " + words};
    options.environment = {{"TMPDIR", temporary_}, {"XDG_STATE_HOME", temporary_.parent_path()}};
    options.output = ChildProcess::Stream::Discard;
    options.readiness = true;
    auto child = std::make_unique<ChildProcess>(options);
    EXPECT_TRUE(child->readinessLine(kPatience)) << words;
    EXPECT_FALSE(fs::is_empty(temporary_)) << "the directory of the bus is elsewhere";
    return child;
  }

  const PrivateBus around_;
  const fs::path temporary_ =
      fs::path(around_.address().substr(around_.address().find('=') + 1)).parent_path() / "tmp";
};

TEST_F(EarlyEnd, LeavesNoDirectoryOfABusBehind) {
  const char* const commands[] = {
      "--embedded monitor --ready-fd 3",
      "service run -- bash -c 'echo up >&3; exec tail -f /dev/null'",
      "--embedded service run -- bash -c 'echo up >&3; exec tail -f /dev/null'",
  };
  for (const char* words : commands) {
    for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
      const auto child = start(words);
      child->signal(signal);
      const bool monitor = std::string_view(words).ends_with("3");  // ends as it was meant to
      EXPECT_EQ(child->finish(kPatience).status, monitor ? 0 : 128 + signal) << words;
      EXPECT_TRUE(fs::is_empty(temporary_)) << words << ", signal " << signal;
    }
  }
}

TEST_F(EarlyEnd, OfAKilledCommandIsTidiedByTheNext) {
  start("--embedded monitor --ready-fd 3")->kill();
  EXPECT_FALSE(fs::is_empty(temporary_));
  EXPECT_EQ(start("--embedded monitor --for 0 --ready-fd 3")->finish(kPatience).status, 0);
  EXPECT_TRUE(fs::is_empty(temporary_));
}

TEST(ASearch, IsStoppedInTheServiceWhenItsCommandIsInterrupted) {
  const ToolWorld world;
  ASSERT_EQ(world.run("service fault set searchSharePrinter delay 60000").status, 0);
  ChildProcess::Options options;
  options.arguments = {PERIXCTL, "printer", "shared", "search", "10.0.0.5"};
  options.environment = {{"ZQBUS_ADDRESS", world.address()}};
  options.output = options.error = ChildProcess::Stream::Discard;
  ChildProcess search(options);
  while (world.run("service calls").output.find("searchSharePrinter") == std::string::npos) {
  }
  search.signal(SIGINT);
  EXPECT_EQ(search.finish(kPatience).status, 128 + SIGINT);
  EXPECT_NE(world.run("service calls").output.find("stopSearchSharePrinter"), std::string::npos);
}

}  // namespace
}  // namespace zq::ctl
