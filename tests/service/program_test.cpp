// The program itself, on a private bus; and the object that brings it into the tests of a client.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <thread>
#include <tuple>

#include "perix/test_service.h"
#include "testing/control_client.h"
#include "tests/support/child.h"
#include "tests/support/watched.h"
#include "tools/embedded/private_bus.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr int kCallMs = 10'000;

class ServiceProgram : public testing::Test {
 protected:
  std::unique_ptr<ChildProcess> start() {
    return startDevelopmentService(bus.address(), PERIX_DEVSERVICE, {});
  }
  ChildProcess::Result runToItsEnd(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), PERIX_DEVSERVICE);
    return ChildProcess({.arguments = arguments,
                         .environment = {{"ZQBUS_ADDRESS", bus.address()}},
                         .error = ChildProcess::Stream::Capture})
        .finish(kPatience);
  }

  PrivateBus bus;
};

TEST_F(ServiceProgram, RunsOnceUntilItIsToldToEndOrBusIsLost) {
  auto service = start();
  const auto second = runToItsEnd({});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.error.find("owned by another process"), std::string::npos) << second.error;
  EXPECT_TRUE(service->running());
  service->signal(SIGTERM);
  EXPECT_EQ(service->wait(), 0);

  service = start();
  bus.kill();
  EXPECT_EQ(service->wait(), 3);
  EXPECT_NE(service->errorText().find("the bus is lost"), std::string::npos);
}

TEST_F(ServiceProgram, NamesMistakeInItsInput) {
  const std::string call =
      R"({"time":"2026-02-28T00:00:01.000000Z","ns":1,"process":1,"kind":"call","direction":"out",)"
      R"("service":"perix","name":"m","arguments":[],"duration":1,"reply":[]})";
  const std::string end = R"({"kind":"end","written":1,"dropped":0})";
  // The mistake stands behind the name of the file.
  const std::tuple<const char*, std::string, const char*> files[] = {
      {"--replay", "", ": no call of the service is recorded"},
      {"--replay", end, ": no call of the service is recorded"},
      {"--replay", call + '\n' + call.substr(0, 100) + '\n', ":2: not JSON from byte 101 on"},
      {"--replay", call + '\n' + end + "\n\177ELF", ":3: not JSON from byte 1 on"},
      {"--replay", "[timing]\n", ":1: not JSON from byte 3 on"},
      {"--replay", std::string(100'000, '['), ":1: not JSON from byte 100001 on"},
      {"--replay", R"({"kind":"\u001b[2J"})", R"(:1: unknown word "\x1b[2J")"},
      {"--scenario", call, ":1:1: "},
      {"--scenario", "[[desktop]]\nid = 1\nname = \"a", ":3:10: "},
      {"--scenario", "[[device]]\nname = \"a\"\nsourceId = \"x\"\n", ":3:12: sourceId is a text"},
      {"--scenario", "a = " + std::string(100'000, '['), ":1:"},
  };
  const std::string file = bus.directory() / "input";
  for (const auto& [option, content, mistake] : files) {
    SCOPED_TRACE(mistake);
    std::ofstream(file) << content;
    const auto result = runToItsEnd({option, file});
    EXPECT_EQ(result.status, 2) << result.error;
    EXPECT_NE(result.error.find(file + mistake), std::string::npos) << result.error;
  }
  EXPECT_EQ(runToItsEnd({"--replay", "/dev/zero"}).error,
            "perix-devservice: /dev/zero: not a regular file\n");
  for (const std::string unreadable : {"/dev/null/none.toml", "/"}) {
    const auto result = runToItsEnd({"--scenario", unreadable});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.error, unreadable + ":1:1: cannot be read\n");
  }
  EXPECT_EQ(runToItsEnd({"--check", "--scenario", ""}).status, 1);
  for (const std::string speed : {"nan", "1e-300", "-1", "1e400"}) {
    const std::string error = runToItsEnd({"--replay", file, "--speed", speed}).error;
    EXPECT_TRUE(error.starts_with("--speed: '" + speed + "' is not 0 or a number from 0.001 to 1"))
        << error;
  }
}

TEST_F(ServiceProgram, GivesUpWorkWhenResetAndEndsWhenStopped) {
  const auto service = start();
  ASSERT_EQ(setenv("ZQBUS_ADDRESS", bus.address().c_str(), 1), 0);
  try {
    ADD_FAILURE() << askControl("stpo");
  } catch (const PerixTestError& error) {
    EXPECT_EQ(std::string(error.what()).find("stpo: no method stpo; there are: awaitCalls"), 0U);
  }
  const auto perix = ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::TrustedPeer, 1);
  ASSERT_NE(perix, nullptr);
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
  EXPECT_EQ(askControl("reset"), "{}");
  EXPECT_EQ(answer.get_future().get(), "the work was given up");
  EXPECT_EQ(askControl("stop"), "{}");
  EXPECT_EQ(service->wait(), 0);
}

TEST_F(ServiceProgram, LeavesNoDirectoryOfBusWithoutDescriptors) {
  const auto directory = bus.directory() / "services";
  ASSERT_EQ(setenv("TMPDIR", directory.c_str(), 1), 0);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_THROW(PrivateBus(), std::system_error);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_TRUE(std::filesystem::is_empty(directory));
  unsetenv("TMPDIR");
}

PerixTestService::Options optionsFor(PerixTestService::Place place) {
  return {place, {}, {}, PERIX_DEVSERVICE};
}

TEST(TestService, OutlivesThreadAndForkedChildAndReturnsWithItsBus) {
  for (const auto place : {PerixTestService::Place::OwnProcess, PerixTestService::Place::Beside}) {
    const auto make = [&] { return std::make_unique<PerixTestService>(optionsFor(place)); };
    auto service = std::async(std::launch::async, make).get();
    EXPECT_EQ(service->plug("name = 'Camera'").number, 9);
    const auto useCopy = [&service]() -> std::string {
      EXPECT_THROW(service->stop(), PerixTestError);
      service.reset();
      return testing::Test::HasFailure() ? "it does not throw" : "";
    };
    EXPECT_EQ(inChild(useCopy), "");
    EXPECT_EQ(service->calls().size(), 0U);

    service->stopBus();
    EXPECT_THROW(service->calls(), PerixTestError);
    service->startBus();
    EXPECT_EQ(service->calls().size(), 0U);
    EXPECT_NE(service->processId(), 0);
  }
}

TEST(TestService, ThrowsItsOwnErrorsAlone) {
  ASSERT_EQ(setenv("ZQBUS_ADDRESS", "unix:path=/mine", 1), 0);
  const auto options = optionsFor(PerixTestService::Place::Beside);
  auto wrong = options;
  wrong.scenarioText = "nonsense = 1";
  EXPECT_THROW(PerixTestService{wrong}, PerixTestError);
  EXPECT_STREQ(getenv("ZQBUS_ADDRESS"), "unix:path=/mine");

  PerixTestService service(options);
  const auto errorOfAwait = [&service](int count, std::chrono::milliseconds timeout) {
    try {
      service.awaitCalls("getVmList", count, timeout);
    } catch (const PerixTestError& error) {
      return std::string(error.what()).substr(0, 28);
    }
    return std::string();
  };
  EXPECT_EQ(errorOfAwait(1, std::chrono::milliseconds(0)), "awaitCalls: no answer within");
  EXPECT_EQ(errorOfAwait(0, std::chrono::milliseconds::max()), "awaitCalls: count must be fr");
  service.pause();
  kill(service.processId(), SIGKILL);
  while (service.processId() != 0) std::this_thread::yield();
  EXPECT_THROW(service.pause(), PerixTestError);
  EXPECT_THROW(service.resume(), PerixTestError);
  ASSERT_EQ(setenv("PATH", "/nowhere", 1), 0);
  EXPECT_THROW(service.startBus(), PerixTestError);
}

}  // namespace
}  // namespace zq
