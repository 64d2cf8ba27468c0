// Connecting, and what happens when the service dies, over a bus that follows a script.

#include "tests/proxy/scripted_test.h"

namespace zq {
namespace {

constexpr char kLookUp[] = "getVmListSize";
constexpr char kOther[] = "searchAllPrinter";

using ResetService = InstanceTest;
using Operation = InstanceTest;
using Death = InstanceTest;
using Recovery = InstanceTest;

TEST(Connecting, IsDoneOnceForThreadsThatComeTogether) {
  for (const bool succeeds : {true, false}) {
    const BusHistory before = history();
    PerixProxy proxy;
    BlockingPoint point;
    script().isRegistered = [&] {
      point.stop();
      return succeeds;
    };
    const int result = succeeds ? 0 : -1;
    const auto init = [&] { EXPECT_EQ(proxy.Init(), result); };
    holdsUp(point, init, init);
    EXPECT_EQ(history().attempts, before.attempts + 1);
    EXPECT_EQ(history().broadcasts, before.broadcasts + (succeeds ? 1 : 0));
    EXPECT_EQ(proxy.Init(), result);
    EXPECT_EQ(history().attempts, before.attempts + (succeeds ? 1 : 2)) << "a later one tries anew";
  }
}

TEST(Connecting, HasOneTimeLimitForAllQuestions) {
  const auto before = std::chrono::steady_clock::now();
  P proxy = *PerixProxy::getInstance();
  const auto limits = history().limits;
  ASSERT_GE(limits.size(), 5U);
  EXPECT_EQ(std::set(limits.begin(), limits.end()).size(), 1U);
  EXPECT_GE(limits[0], before + std::chrono::seconds(10));
  EXPECT_LE(limits[0], std::chrono::steady_clock::now() + std::chrono::seconds(10));
  // A recovery's looks have it each.
  script().isRegistered = [] { return history().attempts > 3; };
  service()->death()();
  EXPECT_NE(history().limits[limits.size()], std::chrono::steady_clock::time_point::max());
  EXPECT_EQ(proxy.Init(), 0);
}

TEST(Connecting, IsTriedAgainAfterFailureOfAnyPart) {
  struct Part {
    void (*spoil)();
    PerixFailure failure = PerixFailure::NoService;
    std::string text = "no owner";
  };
  const Part parts[] = {
      {[] { script().exists = false; }, PerixFailure::NoBus, "no bus"},
      {[] { script().isRegistered = [] { return false; }; }},
      {[] { script().offersInterface = false; }},
      {[] { script().offersEvents = false; }, PerixFailure::NoService,
       "the service went away while the proxy connected"},
      {[] { script().isRegistered = []() -> bool { throw std::bad_alloc(); }; },
       PerixFailure::NoMemory, "std::bad_alloc"},
  };
  PerixProxy proxy;
  for (const auto& [spoil, failure, text] : parts) {
    spoil();
    const int broadcasts = history().broadcasts + (script().exists ? 2 : 0);  // by hand
    for (int tries = 1; tries <= 2; ++tries) {
      const int attempts = history().attempts;
      takeLog();
      EXPECT_EQ(proxy.ConnectDevice("lab-2", 1), -1);
      EXPECT_EQ(history().attempts, attempts + (script().exists ? 1 : 0));
      EXPECT_EQ(proxy.InitBroadcast(), 0);
      const auto log = takeLog();
      EXPECT_EQ(linesWith(log, "getInstance", "retry to get zqbus interface failed"), 1);
      EXPECT_EQ(linesWith(log, "ConnectDevice", "wait perixserviced restart when it death"), 1);
      EXPECT_EQ(linesWith(log, "Init", "Error:"), 1);
      for (const char* method : {"connectDevice", ""}) {
        const PerixFailureReport report = PerixLastFailure();
        EXPECT_EQ(report.failure, failure);
        EXPECT_EQ(report.method, method);
        EXPECT_EQ(report.text, text);
        PerixProxy().Init();
      }
    }
    EXPECT_EQ(history().broadcasts, broadcasts);
    script() = BusScript();
    EXPECT_EQ(proxy.ConnectDevice("lab-2", 1), 0);
    proxy.ReleaseService();
  }
}

TEST(Connecting, HoldsUpNoOperationThatFailed) {
  static BlockingPoint point;
  static std::optional<BlockableThread> other;
  /// Lets another thread begin an attempt when its own first one has failed.
  struct Unlucky : PerixProxy {
    int Init() override {
      const int result = PerixProxy::Init();
      if (other) return result;
      script().isRegistered = [] { return point.stop(), false; };
      other.emplace([this] { PerixProxy::Init(); });
      point.awaitStop();
      return result;
    }
  } proxy;
  script().isRegistered = [] { return false; };
  EXPECT_EQ(proxy.ConnectDevice("lab-2", 1), -1);
  point.go();
  other->join();
}

TEST(Connecting, FailsWithOverrideThatThrows) {
  struct Throwing : PerixProxy {
    int Init() override { throw 1; }
  } proxy;
  EXPECT_EQ(proxy.ConnectDevice("lab-2", 1), -1);
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::NoMemory);
}

// --- Orders --------------------------------------------------------------------------------------

TEST_F(ResetService, LogsItsEntryBehindConnection) {
  proxy.ReleaseService();
  takeLog();
  proxy.ResetService();
  const auto log = takeLog();
  ASSERT_GE(log.size(), 3U);
  EXPECT_EQ(linesWith({log.back()}, "ResetService", "enter"), 1);
}

TEST_F(Operation, EndsBeforeItsCancelledThread) {
  const auto cancel = [] {
    pthread_cancel(pthread_self());
    pthread_testcancel();
  };
  script().answer = [&](const ZQBusMessage&) { return cancel(), message(int32_t{0}); };
  script().isRegistered = [&] { return cancel(), true; };
  const std::function<void()> operations[] = {[&] { proxy.GetVmList(); }, [&] { proxy.Init(); }};
  for (const auto& operation : operations) {
    bool hasEnded = false;
    std::thread([&] {
      operation();
      hasEnded = true;
    }).join();
    EXPECT_TRUE(hasEnded);
    proxy.ReleaseService();
  }
}

TEST_F(Operation, LocksMakesMessageAndLooksIdUpInOrder) {
  using Made = std::vector<std::string>;
  struct Row {
    std::function<void()> run;
    const char* early;  ///< the last call that is sent before another operation's end
    Made made;          ///< the messages, in order
  };
  const Row rows[] = {
      {[&] { proxy.ConnectDevice("a-1", 1); }, kOther, {"connectDevice", kLookUp}},
      {[&] { proxy.DisconnectVm("a-2"); }, kOther, {"disconnectVm", kLookUp}},
      {[&] { proxy.RedirectDevice("a-3", 1, 1); }, kOther, {kLookUp, "redirectDevice"}},
      {[&] { proxy.ResetService(); }, kOther, {"resetService"}},
      {[&] { proxy.Diagnose("a-4", nullptr); }, kLookUp, {kLookUp, "diagnose"}},
      {[&] { proxy.DiagnoseDevice("a-5", 1, {}); }, kLookUp, {kLookUp, "diagnoseDevice"}},
      {[&] { proxy.GetVmIdInt("a-6"); }, kLookUp, {kLookUp}},
      {[&] { proxy.OnFocusChanged("a-7", 1, 1); }, "onFocusChanged", {"onFocusChanged", kLookUp}},
  };
  for (const auto& [run, early, made] : rows) {
    BlockingPoint point;
    script().answer = [&](const ZQBusMessage& call) {
      if (call.name() == kOther) point.stop();
      return message(int32_t{0});
    };
    const auto check = [&, early = early, &made = made] {
      EXPECT_TRUE(history().calls.back().text.starts_with(early)) << early << ' ' << made.back();
    };
    holdsUp(
        point, [&] { proxy.SearchAllPrinter(); }, run, check);
    const Made all = history().made;
    EXPECT_EQ(Made(all.end() - static_cast<long>(made.size()), all.end()), made);
  }
}

// --- Deaths --------------------------------------------------------------------------------------

TEST_F(Death, IsWaitedOutFirstWhenNobodyListens) {
  Watched<int> told;
  script().isRegistered = [&] {
    proxy.UnregisterCallback("nobody");  // takes the lock of the registries
    return true;
  };
  for (const bool desktop : {false, true}) {
    for (const bool device : {false, true}) {
      if (desktop) proxy.RegisterCallback("lab-2", countDeath, &told);
      if (desktop) proxy.RegisterCallback("a-desktop-without-a-callback", nullptr, nullptr);
      if (device) proxy.RegisterDeviceCallback(ignore<CommonDevice>, &told);
      const int before = history().sleeps;
      service()->death()();
      EXPECT_EQ(history().sleeps - before, desktop || device ? 0 : 1) << desktop << device;
      proxy.UnregisterDeviceCallback();
    }
  }
  EXPECT_EQ(told.get(), 2);
}

TEST_F(Recovery, LooksFiveHundredTimes) {
  Watched<int> told;
  proxy.RegisterCallback("lab-2", countDeath, &told);
  script().isRegistered = [] { return false; };
  takeLog();
  service()->death()();
  EXPECT_EQ(history().sleeps, 500);
  EXPECT_EQ(told.get(), 1);
  const auto log = takeLog();
  EXPECT_GT(linesWith(log, "", "waiting cnt=500"), 0);
  EXPECT_GT(linesWith(log, "", "ServiceRegistered:0 count=500"), 0);
}

TEST_F(Recovery, LocksNothingWhileItWaits) {
  Watched<int> old;
  Watched<int> fresh;
  proxy.RegisterCallback("a", countDeath, &old);
  proxy.GetVmIdInt("lab-2");
  std::optional<SleepingRecoveries> recoveries(std::in_place);
  EXPECT_EQ(proxy.GetVmIdString(2), "");
  EXPECT_EQ(proxy.ConnectDevice("lab-2", 1), -1);
  // A client that finds the service before the recovery does, and goes on as ever.
  script().isRegistered = [] { return true; };
  script().owner = ":1.2";
  EXPECT_EQ(proxy.ConnectDevice("lab-2", 1), 0);
  proxy.RegisterCallback("b", countDeath, &fresh);
  proxy.RegisterDeviceCallback(ignore<CommonDevice>, &fresh);
  service()->delivery(2, 4, devicePayload())();
  recoveries.reset();
  EXPECT_EQ(history().interfaces, 2);
  EXPECT_EQ(history().broadcasts, 2);
  EXPECT_EQ(old.get(), 1);
  EXPECT_EQ(fresh.get(), 1) << "every desktop registers again after a death";
  EXPECT_EQ(proxy.GetVmIdString(2), "lab-2");
  service()->death()();
  EXPECT_EQ(old.get(), 1);
  EXPECT_EQ(fresh.get(), 1);
}

TEST_F(Recovery, HandlesDeathDuringItOnce) {
  Watched<int> told[2];
  proxy.RegisterCallback("a", countDeath, &told[0]);
  std::optional<SleepingRecoveries> recoveries(std::in_place);
  script().isRegistered = [] { return true; };
  ASSERT_EQ(proxy.Init(), 0);
  proxy.RegisterCallback("b", countDeath, &told[1]);
  recoveries->begin();
  recoveries.reset();
  EXPECT_EQ(told[0].get(), 1);
  EXPECT_EQ(told[1].get(), 1);
  EXPECT_EQ(history().interfaces, 3);
}

TEST(Log, NamesOperation) {
  int userdata = 0;
  auto proxy = std::make_unique<PerixProxy>();
  takeLog();
  proxy->Init();
  EXPECT_EQ(writers(), std::set<std::string>{"Init"});
  const auto throwing = [](uint16_t, void*, void*) -> int { throw 1; };
  proxy->RegisterCallback("a", throwing, &userdata);
  takeLog();
  script().isRegistered = [asked = 0]() mutable { return asked++ > 0; };
  service()->death()();
  EXPECT_EQ(writers(), (std::set<std::string>{"Init", "ReleaseService", "onServiceDeath"}));
  proxy.reset();
  EXPECT_EQ(writers(), (std::set<std::string>{"ReleaseService", "~PerixProxy"}));
}

template <typename Record>
int throwIt(uint16_t, Record*, void*) {
  throw 5;
}

TEST(Log, NamesHandlerOfEvent) {
  ProgressFunction notify([] { throw 5; });
  PerixProxy proxy;
  ASSERT_EQ(proxy.Init(), 0);
  proxy.Diagnose("", &notify);
  proxy.RegisterPrinterCallback(throwIt<PrinterDevice>, &proxy);
  proxy.RegisterDeviceCallback(throwIt<CommonDevice>, &proxy);
  proxy.RegisterConfigNewDevResultCallback(throwIt<_ConfigNewDeviceResult>, &proxy);
  proxy.RegisterCmdCallback(throwIt<CmdResponse>, &proxy);
  proxy.RegisterJoystickCallback(throwIt<void>, &proxy);
  for (const int kind : {1, 4, 64, 66, 9, 11, 999}) {
    takeLog();
    service()->delivery(0, kind, std::string(1024, '\0'))();
    std::set<std::string> names = writers();
    names.erase("DeviceBaseInfoNotify");
    names.erase("ConfigNewDeviceResultNotify");
    EXPECT_EQ(names, std::set<std::string>{"HandleEvent"}) << kind;
  }
  proxy.JoystickResultNotify(1, nullptr);
  EXPECT_EQ(writers(), std::set<std::string>{"JoystickResultNotify"});
}

}  // namespace
}  // namespace zq
