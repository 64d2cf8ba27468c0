// Notifiers, callbacks, derived proxies and desktop ids: who outlives whom.

#include "tests/proxy/scripted_test.h"

namespace zq {
namespace {

constexpr int kProgress = 9;
constexpr int kDevice = 4;

using Callback = InstanceTest;
using Notifier = InstanceTest;
using ReleasedProxy = InstanceTest;
using DesktopId = InstanceTest;

/// Notes on the heap that it was called, so that a sanitizer sees a call after its end.
class Notify : public ProgressFunction {
 public:
  Notify() : ProgressFunction([this] { *calls_ += 1; }) {}
  int calls() const { return *calls_; }

 private:
  std::unique_ptr<int> calls_ = std::make_unique<int>(0);
};

void sendProgress() {
  service()->delivery(0, kProgress, std::string(20, '\0'))();
}

int runIt(uint16_t, CommonDevice*, void* userdata) {
  (*static_cast<std::function<void()>*>(userdata))();
  return 0;
}
/// The delivery of an event that runs the device callbacks.
std::function<void()> deviceEvent() {
  return service()->delivery(0, kDevice, devicePayload());
}

TEST_F(Callback, MayCallAndThrow) {
  Notify notify;
  int others = 0;
  const auto other = [&] { ++others; };
  const auto diagnose = [&] {
    EXPECT_EQ(proxy.Diagnose("lab-2", &notify), 0);
    EXPECT_EQ(proxy.DiagnoseDevice("lab-2", 9, &notify), 0);
    throw 5;
  };
  std::function<void()> callbacks[] = {other, diagnose, other};  // called in the order of addresses
  for (auto& callback : callbacks) proxy.RegisterDeviceCallback(runIt, &callback);
  deviceEvent()();
  EXPECT_EQ(others, 2);
  sendProgress();
  EXPECT_EQ(notify.calls(), 1);
  callbacks[1] = [&] { EXPECT_EQ(proxy.StopDiagnoseNotify(&notify), 0); };
  deviceEvent()();
  sendProgress();
  EXPECT_EQ(notify.calls(), 1);
}

TEST_F(Notifier, EndsByItsOwnAddressAlone) {
  Notify first;
  Notify second;
  proxy.Diagnose("", &first);
  proxy.Diagnose("", &second);
  proxy.StopDiagnoseNotify(&first);
  sendProgress();
  EXPECT_EQ(first.calls(), 0);
  EXPECT_EQ(second.calls(), 1);
}

TEST_F(Notifier, EndsWithFailedStart) {
  for (const ZQBusMessage& answer :
       {message(int32_t{5}), ZQBusMessage::failed(ZQBusFailure::TimedOut, "")}) {
    script().answer = [&](const ZQBusMessage&) { return answer; };
    Notify notify;
    EXPECT_NE(proxy.Diagnose("", &notify), 0);
    sendProgress();
    EXPECT_NE(proxy.DiagnoseDevice("", 9, &notify), 0);
    sendProgress();
    EXPECT_EQ(notify.calls(), 0);
  }
}

TEST_F(Notifier, StaysWhenEarlierStartFails) {
  Notify failing;
  Notify next;
  std::unique_ptr<BlockableThread> other;
  script().answer = [&](const ZQBusMessage&) {
    if (other != nullptr) return message(int32_t{0});
    other = std::make_unique<BlockableThread>([&] { proxy.Diagnose("", &next); });
    other->awaitBlocked();  // for this call to end
    return message(int32_t{5});
  };
  proxy.Diagnose("", &failing);
  other->join();
  sendProgress();
  EXPECT_EQ(next.calls(), 1);
}

TEST_F(Callback, IsWaitedForByOperationsThatEndIt) {
  int userdata = 0;
  Notify notify;
  const std::function<void()> ends[] = {
      [&] { proxy.StopDiagnoseNotify(&notify); },
      [&] { proxy.UnregisterCallback("lab-2"); },
      [&] { proxy.UnregisterPrinterCallback(); },
      [&] { proxy.UnregisterDeviceCallback(&userdata); },
      [&] { proxy.UnregisterDeviceCallback(); },
      [&] { proxy.UnregisterConfigNewDevResultCallback(&userdata); },
      [&] { proxy.UnregisterConfigNewDevResultCallback(); },
      [&] { proxy.UnregisterJoystickCallback(&userdata); },
      [&] { proxy.AwaitDeliveries(); },
  };
  for (const auto& end : ends) {
    EXPECT_EQ(PerixProxy::getInstance()->Init(), 0);
    BlockingPoint point;
    std::function<void()> block = [&] { point.stop(); };
    proxy.RegisterDeviceCallback(runIt, &block);
    EXPECT_TRUE(holdsUp(point, deviceEvent(), end)) << &end - ends;
    proxy.UnregisterDeviceCallback();
  }
}

/// Stops at a point of the test, once there is a point, where it connects and where it handles an
/// event.
class OwnProxy : public PerixProxy {
 public:
  int Init() override {
    if (point != nullptr) point->stop();
    return PerixProxy::Init();
  }
  void HandleEvent(std::shared_ptr<ZQBusMessage> event) override {
    if (point != nullptr) point->stop();
    PerixProxy::HandleEvent(event);  // a sanitizer sees when it comes after the end
  }

  BlockingPoint* point = nullptr;
};

class DerivedProxy : public testing::Test {
 protected:
  DerivedProxy() { EXPECT_EQ(own->Init(), 0); }
  void end() {
    own->ReleaseService();
    own->AwaitDeliveries();
    own.reset();
  }
  void countDeviceEvents() { own->RegisterDeviceCallback(runIt, &count_); }

  BlockingPoint point;
  std::unique_ptr<OwnProxy> own = std::make_unique<OwnProxy>();
  int calls = 0;

 private:
  std::function<void()> count_ = [this] { ++calls; };
};

TEST_F(DerivedProxy, OutlivesRunningEvent) {
  own->point = &point;
  const auto late = deviceEvent();
  EXPECT_TRUE(holdsUp(point, late, [&] { end(); }));
  late();  // had begun on the bus's side
}

TEST_F(DerivedProxy, EndsWaitingRecovery) {
  script().isRegistered = [] { return false; };
  script().sleep = [&] { point.stop(); };
  int attempts = 0;
  EXPECT_TRUE(holdsUp(
      point, service()->death(), [&] { end(); },
      [&] {
        attempts = history().attempts;
        script().isRegistered = [] { return true; };
      }));
  EXPECT_EQ(history().attempts, attempts);  // it neither looked again nor connected
  EXPECT_EQ(history().interfaces, 1);
}

TEST_F(DerivedProxy, IsNotConnectedByLateRecovery) {
  own->point = &point;
  holdsUp(point, service()->death(), [&] { own->AwaitDeliveries(); });
  EXPECT_EQ(history().broadcasts, 1);
  EXPECT_EQ(own->StartVm(""), 0) << "connects again when it is asked to";
  EXPECT_EQ(history().broadcasts, 2);
}

TEST_F(DerivedProxy, TakesNoEventAfterAwaitDeliveries) {
  countDeviceEvents();
  for (const int result : {0, -1}) {
    script().offersEvents = result == 0;
    EXPECT_EQ(own->Init(), result) << "an attempt that fails half-way leaves nothing behind either";
    const auto event = deviceEvent();
    own->AwaitDeliveries();
    event();
    EXPECT_EQ(calls, 0);
  }
}

TEST_F(DerivedProxy, AwaitsNothingInItsOwnCallback) {
  std::function<void()> await = [&] { own->AwaitDeliveries(); };
  own->RegisterDeviceCallback(runIt, &await);
  deviceEvent()();
  EXPECT_EQ(history().interfaces, 1);
}

TEST_F(ReleasedProxy, TakesNoLateDelivery) {
  int calls = 0;
  std::function<void()> count = [&] { ++calls; };
  proxy.RegisterDeviceCallback(runIt, &count);
  const auto before = service();
  const auto event = deviceEvent();
  proxy.ReleaseService();
  event();
  before->death()();
  EXPECT_EQ(history().sleeps + calls, 0);
  ASSERT_EQ(PerixProxy::getInstance()->Init(), 0);
  event();
  before->death()();  // is not the new connection's
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(history().interfaces, 2);
}

TEST_F(DerivedProxy, IsAskedForDesktopIds) {
  struct OwnIds : PerixProxy {
    unsigned int GetVmIdInt(std::string) override { return 77; }
  } proxy;
  EXPECT_EQ(proxy.ConnectDevice("any", 1), 0);
  EXPECT_EQ(history().calls.back().text, "connectDevice(i:77, q:1)");
}

int lookUps() {
  int count = 0;
  for (const SentCall& call : history().calls) count += call.text.starts_with("getVmListSize");
  return count;
}

TEST_F(DesktopId, IsAskedForUntilItIsKnown) {
  EXPECT_EQ(proxy.GetVmIdInt(""), 0U);
  EXPECT_EQ(lookUps(), 0);
  for (const int asked : {1, 2}) {
    EXPECT_EQ(proxy.GetVmIdInt("unknown"), 0U);
    EXPECT_EQ(lookUps(), asked);
  }
  for (const char* name : {"b-7", "other-7"}) {
    EXPECT_EQ(proxy.GetVmIdInt(name), 7U);
    EXPECT_EQ(proxy.GetVmIdString(7), name);
  }
  for (const unsigned int unknown : {0U, 8U}) EXPECT_EQ(proxy.GetVmIdString(unknown), "");
}

TEST_F(DesktopId, StaysKnownWhileItsProcessAnswers) {
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 2U);
  proxy.ReleaseService();
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 2U);
  ASSERT_EQ(PerixProxy::getInstance()->Init(), 0);
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 2U);
  EXPECT_EQ(lookUps(), 1);
  proxy.ReleaseService();
  script().owner = ":1.2";
  ASSERT_EQ(PerixProxy::getInstance()->Init(), 0);
  EXPECT_EQ(proxy.GetVmIdString(2), "");
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 2U);
  EXPECT_EQ(lookUps(), 2);
}

/// Does `meanwhile` while a thread that runs `operation` looks a desktop's id up.
void duringLookUp(const std::function<void()>& operation, const std::function<void()>& meanwhile) {
  BlockingPoint point;
  script().answersLookUps = true;
  script().answer = [&](const ZQBusMessage& call) {
    if (call.name() == "getVmListSize") point.stop();
    return message(int32_t{7});
  };
  point.during(operation, meanwhile);
  script().answer = [](const ZQBusMessage&) { return message(int32_t{7}); };
}

void replace(P proxy) {
  proxy.ReleaseService();
  script().owner = ":1.2";
  ASSERT_EQ(proxy.Init(), 0);
}

TEST_F(DesktopId, IsForgottenWithItsProcess) {
  duringLookUp([&] { EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 7U); }, [&] { replace(proxy); });
  EXPECT_EQ(proxy.GetVmIdString(7), "");
  const int before = lookUps();
  proxy.GetVmIdInt("lab-2");
  EXPECT_EQ(lookUps(), before + 1);

  std::optional<SleepingRecoveries> recoveries;
  duringLookUp([&] { proxy.GetVmIdInt("lab-3"); }, [&] { recoveries.emplace(); });
  EXPECT_EQ(proxy.GetVmIdString(7), "");
}

TEST_F(DesktopId, IsNotSentToOtherProcess) {
  const std::pair<const char*, std::function<int(P)>> operations[] = {
      {"onFocusChanged", [](P p) { return p.OnFocusChanged("lab-2", 1, 1); }},
      {"diagnose", [](P p) { return p.Diagnose("lab-2", nullptr); }},
      {"diagnoseDevice", [](P p) { return p.DiagnoseDevice("lab-2", 1, nullptr); }},
  };
  for (const auto& [method, run] : operations) {
    script().owner = ":1.1";
    ASSERT_EQ(proxy.Init(), 0);
    duringLookUp(
        [&, &run = run] {
          EXPECT_EQ(run(proxy), -1);
          EXPECT_EQ(PerixLastFailure().failure, PerixFailure::Died);
        },
        [&] { replace(proxy); });
    for (const SentCall& call : history().calls) EXPECT_FALSE(call.text.starts_with(method));
    // A released service leaves nobody to send to.
    script().answer = [&](const ZQBusMessage&) {
      proxy.ReleaseService();
      return message(int32_t{7});
    };
    EXPECT_EQ(run(proxy), -1);
    EXPECT_EQ(PerixLastFailure().failure, PerixFailure::NoService);
  }
}

}  // namespace
}  // namespace zq
