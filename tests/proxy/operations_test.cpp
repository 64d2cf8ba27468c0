// Each operation over the scripted bus: its time-out, its name in the log, and no memory. Each of
// its allocations fails once, and from each on all fail. And a fork while a thread is in the middle
// of an allocation, under the lock that it holds then.

#include <new>
#include <tuple>

#include "tests/proxy/scripted_test.h"
#include "tests/proxy/wire_table.h"
#include "tests/support/child.h"

namespace zq {
namespace {

class Operation : public testing::TestWithParam<NamedWireRow> {};

TEST_P(Operation, HasItsTimeOutAndItsNameInLog) {
  const WireRow& row = GetParam().row;
  // Each row has the name of its operation; GetLocalDeviceList calls another operation.
  std::string name = GetParam().name;
  if (name == "GetLocalDeviceList") name = "GetDeviceList";
  PerixProxy& proxy = *PerixProxy::getInstance();
  std::string result;
  const auto namesInLog = [&] {
    takeLog();
    result = row.run(proxy);
    auto names = writers();
    std::erase_if(names, [&](const std::string& writer) {
      return name.starts_with(writer) || writer == "GetVmIdInt" || writer == "getInstance";
    });
    return names;
  };
  for (const ZQBusMessage& answer :
       {row.reply, ZQBusMessage::failed(ZQBusFailure::TimedOut, "too late")}) {
    script().answer = [&](const ZQBusMessage&) { return answer; };
    EXPECT_EQ(namesInLog(), std::set<std::string>());
  }
  const BusHistory before = history();
  ASSERT_EQ(before.calls.empty(), row.timeoutMs == 0);
  if (!before.calls.empty()) {
    EXPECT_EQ(before.calls.back().timeoutMs, row.timeoutMs);
  }
  if (row.timeoutMs > 0) {
    EXPECT_EQ(result, row.failure);
    EXPECT_EQ(PerixLastFailure().failure, PerixFailure::TimedOut);
  }
  script().isRegistered = [] { return false; };
  proxy.ReleaseService();
  auto names = namesInLog();
  names.erase("Init");
  EXPECT_EQ(names, std::set<std::string>());
  if (row.timeoutMs != 0) {
    EXPECT_EQ(history().attempts, before.attempts + 1)
        << "a service that is away costs one attempt";
  }
}

INSTANTIATE_TEST_SUITE_P(Wire, Operation, testing::ValuesIn(wireTable()),
                         [](const auto& row) { return row.param.name; });

// --- No memory -----------------------------------------------------------------------------------

enum class Trouble { None, FailsOnce, FailsForGood, Stops };

thread_local constinit Trouble trouble = Trouble::None;
thread_local constinit int untilTrouble = 0;
thread_local constinit bool befell = false;
BlockingPoint* stop = nullptr;

void* allocate(std::size_t size) {
  if (trouble != Trouble::None && --untilTrouble <= 0) {
    befell = true;
    const Trouble now = trouble;
    if (now != Trouble::FailsForGood) trouble = Trouble::None;
    if (now != Trouble::Stops) return nullptr;
    stop->stop();
  }
  return std::malloc(size);
}

/// Runs an operation with trouble at its allocation `number`; whether it came to that.
template <typename Run>
bool withTrouble(Trouble kind, int number, Run run) {
  befell = false;
  untilTrouble = number;
  trouble = kind;
  try {
    run();
    trouble = Trouble::None;
  } catch (...) {
    trouble = Trouble::None;
    ADD_FAILURE() << "an exception left the operation at allocation " << number;
  }
  return befell;
}

/// Runs an operation once for each of its allocations and both ways to fail.
template <typename Prepare, typename Run, typename Check>
void withEachFailure(Prepare prepare, Run run, Check check) {
  for (const Trouble kind : {Trouble::FailsOnce, Trouble::FailsForGood}) {
    int number = 1;
    for (bool failed = true; failed; ++number) {
      prepare();
      failed = withTrouble(kind, number, run);
      check();
    }
    EXPECT_GT(number, 2) << "allocated nothing";
  }
}

/// Connects to a process of which no desktop's id is known.
void replaceService(PerixProxy& proxy) {
  static int process = 1;
  proxy.ReleaseService();
  script().owner = ":1." + std::to_string(++process);
}

class OperationWithoutMemory : public testing::TestWithParam<NamedWireRow> {};

TEST_P(OperationWithoutMemory, FailsWithoutException) {
  const WireRow& row = GetParam().row;
  script().answer = [&](const ZQBusMessage&) { return row.reply; };
  PerixProxy& proxy = *PerixProxy::getInstance();
  std::string result;
  std::size_t calls = 0;
  withEachFailure(
      [&] {
        replaceService(proxy);
        calls = history().calls.size();
      },
      [&] { result = row.run(proxy); },
      [&] {
        const PerixFailure failure = PerixLastFailure().failure;
        if (failure == PerixFailure::None) {
          EXPECT_EQ(result, row.result);
        }
        const auto sent = history().calls;
        for (std::size_t i = calls; i < sent.size(); ++i) {
          if (sent[i].text.starts_with("getVmListSize")) continue;
          EXPECT_EQ(sent[i].text, row.sends);
        }
      });
}

/// The rows whose own code allocates nothing; what asks nobody allocates nothing either.
std::vector<NamedWireRow> rows() {
  std::vector<NamedWireRow> all = wireTable();
  std::erase_if(all, [](const NamedWireRow& row) {
    return row.row.timeoutMs == 0 || row.name == "CreatePipe" ||
           row.name == "AddSharePrinterDevice" || row.name.starts_with("SearchSharePrinter");
  });
  return all;
}

INSTANTIATE_TEST_SUITE_P(Wire, OperationWithoutMemory, testing::ValuesIn(rows()),
                         [](const auto& row) { return row.param.name; });

TEST(OtherOperations, ThrowNothingWithoutMemory) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const std::string longName(100, 'x');
  const std::string longId = longName + "-3";
  const std::string port = longName + "space.port.2";
  std::list<_SharePrinterDevice> printers(2);
  std::list<_SharePrinterDevice> found;
  std::list<_CHANNEL_HANDLE> handles(2);
  handles.front().vmId = longId;
  script().answer = [&](const ZQBusMessage& call) {
    if (call.name() == "getPerixCmdHelp") return message(longName);
    return call.name() == "searchSharePrinter"
               ? message(int32_t{0}, int32_t{1}, longName, longName, longName)
               : message(int32_t{0});
  };
  std::string name;
  std::list<_CHANNEL_HANDLE> ownHandles;
  std::function<unsigned int(const std::string&, unsigned int, unsigned char*)> send;
  ProgressFunction notify([] {});
  proxy.Diagnose("", &notify);
  proxy.GetVmIdInt(longId);
  auto progress = std::make_shared<ZQBusMessage>();
  *progress = message(int32_t{3}, int32_t{9}, bytes(std::string(12, '\0') + '\3' + longName));
  unsigned char announcement[16] = {0x27, 1, 0x35, 0x08};
  proxy.PortData(port, announcement, sizeof announcement);
  const PenEvent pen{.type = kPenPress};
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"CreatePipe", [&] { proxy.CreatePipe({}, std::move(ownHandles)); }},
      {"AddSharePrinterDevice", [&] { proxy.AddSharePrinterDevice(printers); }},
      {"SearchSharePrinterDevice", [&] { proxy.SearchSharePrinterDevice("10.0.0.5", found); }},
      {"AddNetworkPrinter", [&] { proxy.AddNetworkPrinter(longName.c_str()); }},
      {"GetPerixCmdHelp", [&] { proxy.GetPerixCmdHelp(); }},
      {"GetVmIdInt", [&] { proxy.GetVmIdInt(std::move(name)); }},
      {"GetVmIdString", [&] { EXPECT_LE(proxy.GetVmIdString(3).size(), longId.size()); }},
      {"RegisterCallback", [&] { proxy.RegisterCallback(std::move(name), ignore<void>, &proxy); }},
      {"RegisterDeviceCallback",
       [&] { proxy.RegisterDeviceCallback(ignore<CommonDevice>, &proxy); }},
      {"RegisterConfigNewDevResultCallback",
       [&] { proxy.RegisterConfigNewDevResultCallback(ignore<_ConfigNewDeviceResult>, &proxy); }},
      {"RegisterJoystickCallback", [&] { proxy.RegisterJoystickCallback(ignore<void>, &proxy); }},
      {"HandleEvent", [&] { proxy.HandleEvent(progress); }},
      {"PortInit", [&] { proxy.PortInit(port, true, std::move(send)); }},
      {"SendPenEvent", [&] { proxy.SendPenEvent(pen); }},
      {"Init", [&] { proxy.Init(); }},
      {"onServiceDeath", [&] { proxy.onServiceDeath(); }},
  };
  for (const auto& [operation, run] : operations) {
    SCOPED_TRACE(operation);
    const bool connected = std::string(operation) != "Init";
    withEachFailure(
        [&, operation = std::string(operation)] {
          name = longId;
          ownHandles = handles;
          send = [](const std::string&, unsigned int, unsigned char*) { return 0U; };
          proxy.UnregisterCallback(longId);
          proxy.UnregisterDeviceCallback();
          proxy.UnregisterConfigNewDevResultCallback();
          proxy.UnregisterJoystickCallback(&proxy);
          if (operation != "SendPenEvent") proxy.PortInit(port, true, send);
          if (operation == "GetVmIdString" || operation == "HandleEvent") {
            proxy.GetVmIdInt(longId);
          } else {
            replaceService(proxy);
          }
          if (connected) proxy.Init();
        },
        run, [] {});
  }
  proxy.StopDiagnoseNotify(&notify);
}

// --- Children ------------------------------------------------------------------------------------

TEST(Instance, IsMadeWhenThereIsMemory) {
  // In a new process each time, since a process makes it once.
  int number = 1;
  for (std::string end = "failed"; end == "failed"; ++number) {
    end = inChild([&] {
      script().keepsLog = false;
      const bool failed =
          withTrouble(Trouble::FailsOnce, number, [] { PerixProxy::getInstance(); });
      PerixProxy* const proxy = PerixProxy::getInstance();
      const bool isMade = proxy != nullptr && proxy->StartVm({}) == 0;
      return testing::Test::HasFailure() || !isMade ? "is not made" : failed ? "failed" : "";
    });
    EXPECT_TRUE(end.empty() || end == "failed") << end << number;
  }
  EXPECT_GT(number, 8);
}

bool failsAsInAChild(PerixProxy& proxy) {
  return proxy.StartVm({}) == -1 && PerixLastFailure().failure == PerixFailure::Forked &&
         proxy.GetVmIdString(3).empty() && proxy.GetVmIdInt("x-3") == 0 &&
         proxy.RegisterDeviceCallback(ignore<CommonDevice>, &proxy) == -1;
}

/// What is forked while a thread is at any of its allocations, under whichever locks.
TEST(ForkedChild, WaitsForNoLockOfItsParent) {
  const std::string longId = std::string(100, 'x') + "-3";
  PerixProxy* proxy = nullptr;  // made after the instance, whose making is the first use
  // What comes before each operation, and the operation.
  const std::tuple<const char*, std::function<void()>, std::function<void()>> operations[] = {
      {"getInstance", [] {}, [] { PerixProxy::getInstance(); }},
      {"Init", [&] { proxy->ReleaseService(); }, [&] { proxy->Init(); }},
      {"GetVmIdInt", [&] { replaceService(*proxy), proxy->Init(); },
       [&] { proxy->GetVmIdInt(longId); }},
      {"RegisterDeviceCallback", [&] { proxy->UnregisterDeviceCallback(); },
       [&] { proxy->RegisterDeviceCallback(ignore<CommonDevice>, proxy); }},
  };
  for (const auto& [name, prepare, run] : operations) {
    for (int number = 1;; ++number) {
      prepare();
      BlockingPoint point;
      stop = &point;
      std::atomic<bool> stopped = false;
      BlockableThread thread(
          [&, &run = run] { stopped = withTrouble(Trouble::Stops, number, run); });
      const auto check = [&]() -> std::string {
        script().keepsLog = false;
        PerixProxy* const instance = PerixProxy::getInstance();
        const bool fails = instance != nullptr && failsAsInAChild(*instance) &&
                           (proxy == nullptr || failsAsInAChild(*proxy));
        return fails ? "" : "does not fail";
      };
      if (thread.awaitBlocked()) {
        EXPECT_EQ(inChild(check), "") << name << " at allocation " << number;
      }
      point.go();
      thread.join();
      if (!stopped) break;
    }
    if (proxy == nullptr) proxy = new PerixProxy;
  }
}

}  // namespace
}  // namespace zq

// Not inlined: the compiler takes a free() that it sees for the wrong partner of a new.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* const made = zq::allocate(size)) return made;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return zq::allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
