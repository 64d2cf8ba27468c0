// The program itself, on a private bus.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <future>

#include "tools/embedded/private_bus.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr std::chrono::milliseconds kPatience{20'000};
constexpr int kCallMs = 10'000;

class TheService : public testing::Test {
 protected:
  std::unique_ptr<ChildProcess> start() {
    return startDevelopmentService(bus.address(), PERIX_DEVSERVICE, {});
  }
  ChildProcess::Result runToItsEnd(const std::vector<std::string>& arguments) {
    ChildProcess::Options options;
    options.arguments = {PERIX_DEVSERVICE};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = {{"ZQBUS_ADDRESS", bus.address()}};
    options.error = ChildProcess::Stream::Capture;
    return ChildProcess(options).finish(kPatience);
  }

  PrivateBus bus;
};

TEST_F(TheService, DoesNotStartWhereOneRuns) {
  const auto first = start();
  const auto second = runToItsEnd({});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.error.find("owned by another process"), std::string::npos) << second.error;
  EXPECT_TRUE(first->running());
}

TEST_F(TheService, DoesNotStartWithMistakesInItsScenario) {
  for (const std::string file : {"/dev/null/none.toml", "/"}) {
    const auto result = runToItsEnd({"--scenario", file});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.error, file + ":1:1: cannot be read\n");
  }
  EXPECT_EQ(runToItsEnd({"--check", "--scenario", ""}).status, 1);
}

TEST_F(TheService, EndsWellWhenToldTo) {
  const auto service = start();
  service->signal(SIGTERM);
  EXPECT_EQ(service->wait(), 0);
}

TEST_F(TheService, EndsWhenTheBusIsLost) {
  const auto service = start();
  bus.kill();
  EXPECT_EQ(service->wait(), 3);
  EXPECT_NE(service->errorText().find("the bus is lost"), std::string::npos);
}

TEST_F(TheService, GivesUpWhatItWorksOnWhenItIsResetAndEndsWhenItIsStopped) {
  const auto service = start();
  ASSERT_EQ(setenv("ZQBUS_ADDRESS", bus.address().c_str(), 1), 0);
  auto* manager = ZQBusSerivceManager::initSync(-1);
  ASSERT_NE(manager, nullptr);
  const auto interface = [&](const char* name) {
    return manager->getServiceProxyInterface(name, ZQBusSecurityFlags::TrustedPeer, 1);
  };
  const auto perix = interface("perix");
  const auto control = interface("perixcontrol");
  ASSERT_TRUE(perix && control);
  const auto ask = [&](const char* method) {
    return control->callWithReplyBlocking(control->makeMethodCallMessage(method), kCallMs);
  };
  std::string text;
  EXPECT_EQ(ask("stpo")->readString(text, 0).find("no method stpo; there are: awaitCalls"), 0U);
  std::promise<std::string> answer;
  perix->callWithReply(
      perix->makeMethodCallMessage("searchAllPrinter"),
      [&answer](const auto& reply) {
        std::string words;
        answer.set_value(reply->readString(words, 0));
      },
      kCallMs);
  // Answered behind it, so that the summary is begun when the world is reset.
  perix->callWithReplyBlocking(perix->makeMethodCallMessage("CheckCameraAuthStat"), kCallMs);
  EXPECT_EQ(ask("reset")->readString(text, 0), "{}");
  EXPECT_EQ(answer.get_future().get(), "the work was given up");
  EXPECT_EQ(ask("stop")->readString(text, 0), "{}");
  EXPECT_EQ(service->wait(), 0);
}

}  // namespace
}  // namespace zq
