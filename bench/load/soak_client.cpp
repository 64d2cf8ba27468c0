// One client of the long run: soak_client FIGURES ROW SEED. Its threads use many operations at
// once, whatever becomes of the service, until a line comes on its standard input. Row 0 of FIGURES
// is the script's; its columns and those of a client's row are below, and in bench/load/soak.py.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/load/figures.h"
#include "bench/load/orders.h"
#include "perix/events.h"
#include "perix/pen_packet.h"
#include "perix/perix_proxy.h"

namespace zq::load {
namespace {

enum ScriptColumn : std::size_t {
  kRestarts,    // odd while the script has ended the service or the broker and not started it yet
  kQuietSince,  // when that became even, as nanosecondsNow()
};

enum Column : std::size_t {
  kOperations,
  kFailures,     // with a cause that PerixLastFailure() tells
  kUnexplained,  // -1 without a cause, or a failure long after the last restart
  kLongest,      // nanoseconds
  kLastSuccess,  // when an operation succeeded last
  kOutcomes,     // answers of commands that were heard
  kLostOutcomes,
  kLastOutcome,  // when an answer was heard last
  kDeaths,       // that the desktop's callback was told of
  kBroadcasts,
  kPenPackets,
  kWrongPens,   // events of the pen that sent no packet
  kWrongLists,  // lists that were neither empty nor whole
};

constexpr char kDesktop[] = "desk";
constexpr std::size_t kDevices = 20;
constexpr int kCallers = 3;
constexpr std::chrono::milliseconds kLongestPause{20};
constexpr std::chrono::milliseconds kListPause{50};
constexpr std::chrono::milliseconds kCommandPause{100};
constexpr std::chrono::milliseconds kPenPause{5};
constexpr std::chrono::seconds kOutcomePatience{5};
constexpr int64_t kRecoveryNs = 16'000'000'000;

using Random = std::mt19937;
using Operation = int (*)(PerixProxy&, Random&);

uint16_t anyDevice(Random& random) {
  return static_cast<uint16_t>(1 + random() % kDevices);
}

int freed(PerixProxy& proxy, const std::list<CommonDevice*>& list) {
  return proxy.FreeDeviceList(list);
}

int freed(const std::list<PrinterDevice*>& list) {
  for (PrinterDevice* const printer : list) std::free(printer);
  return 0;
}

// Each asks the service, and its result is never -1 while the service answers.
constexpr Operation kTable[] = {
    [](PerixProxy& proxy, Random& random) {
      return proxy.ConnectDevice(kDesktop, anyDevice(random));
    },
    [](PerixProxy& proxy, Random& random) {
      return proxy.DisconnectDevice(kDesktop, anyDevice(random));
    },
    [](PerixProxy& proxy, Random& random) {
      return proxy.RedirectDevice(kDesktop, anyDevice(random), random() % 2);
    },
    [](PerixProxy& proxy, Random& random) {
      return freed(proxy, proxy.GetDeviceStatus(anyDevice(random)));
    },
    [](PerixProxy& proxy, Random&) { return freed(proxy, proxy.GetLocalDeviceList()); },
    [](PerixProxy& proxy, Random&) { return freed(proxy, proxy.GetNetworkPrinterList()); },
    [](PerixProxy& proxy, Random&) { return freed(proxy, proxy.GetJoystickDevList()); },
    [](PerixProxy& proxy, Random&) { return proxy.FreePolicyList(proxy.GetPolicyListByVidPid()); },
    [](PerixProxy& proxy, Random&) { return freed(proxy.GetPrinterList(kDesktop)); },
    [](PerixProxy& proxy, Random&) { return freed(proxy.GetPrinterStatus(1)); },
    [](PerixProxy& proxy, Random& random) {
      return proxy.SetAutoConnect(1, static_cast<int>(random() % 2));
    },
    [](PerixProxy& proxy, Random&) { return proxy.GetAutoConnect(1); },
    [](PerixProxy& proxy, Random&) { return static_cast<int>(proxy.GetVmList().size()); },
    [](PerixProxy& proxy, Random& random) {
      return proxy.OnFocusChanged(kDesktop, random(), random() % 2);
    },
    [](PerixProxy& proxy, Random&) { return proxy.UpdateDriveToken("token"); },
    [](PerixProxy& proxy, Random& random) {
      return proxy.SetDevicePropertyWithVidPid(1, 2, 0, static_cast<int>(random() % 9));
    },
    [](PerixProxy& proxy, Random&) { return proxy.GetDevicePropertyWithVidPid(1, 2, 0); },
    [](PerixProxy& proxy, Random&) { return proxy.GetLocalDevicePropertyWithVidPid(1, 2, 0); },
    [](PerixProxy& proxy, Random&) { return proxy.SetTurboConfigWithVidPid(1, 2, "fast"); },
    [](PerixProxy& proxy, Random&) {
      return static_cast<int>(proxy.GetTurboConfigWithVidPid(1, 2).size());
    },
    [](PerixProxy& proxy, Random&) { return proxy.CheckCameraAuthStat(); },
    [](PerixProxy& proxy, Random&) {
      return static_cast<int>(proxy.GetPrinterDriverlList("").size());
    },
    [](PerixProxy& proxy, Random&) { return static_cast<int>(proxy.GetPerixCmdHelp().size()); },
    [](PerixProxy& proxy, Random&) { return proxy.DoPerixTest("loopback"); },
    [](PerixProxy& proxy, Random&) { return proxy.SetJoystickMapping(1, 2, "a=b"); },
    [](PerixProxy& proxy, Random& random) {
      return proxy.SetPortChannelStatus(kDesktop, 1 + random() % 4, static_cast<int>(random() % 2));
    },
    [](PerixProxy& proxy, Random& random) {
      const auto port = std::to_string(random() % 1000);
      std::string address = "10.0.0." + port;
      std::string name = "Device " + port;
      const int added = proxy.AddNetworkPrinter(address, name, "");
      return added == 0 ? proxy.DeleteNetworkPrinter(name) : added;
    },
    [](PerixProxy& proxy, Random& random) {  // mounts or unmounts a disk: a broadcast
      return proxy.ConfigUdisks2Command("", 1, static_cast<uint16_t>(1 + random() % 2));
    },
};

class Client {
 public:
  Client(const std::string& file, std::size_t row, unsigned int seed)
      : figures_(file, row), script_(file, 0), name_("c" + std::to_string(row)), seed_(seed) {}

  void run() {
    PerixProxy* const proxy = PerixProxy::getInstance();
    proxy->RegisterCmdCallback(&onAnswer, this);
    proxy->RegisterDeviceCallback(&onDevice, this);
    std::vector<std::thread> threads;
    for (int i = 0; i < kCallers; ++i) threads.emplace_back([this, i] { callAnything(seed_ + i); });
    threads.emplace_back([this] { list(); });
    threads.emplace_back([this] { command(); });
    threads.emplace_back([this] { movePen(); });
    tell("ready");
    std::string line;
    nextOrder(line);
    isEnding_ = true;
    for (std::thread& thread : threads) thread.join();
    proxy->AwaitDeliveries();
    tell("done");
  }

 private:
  static int onDesktop(uint16_t code, void*, void* self) {
    auto& client = *static_cast<Client*>(self);
    if (code != SERVICE_DIED) return 0;
    ++client.figures_[kDeaths];
    client.isRegistered_ = false;
    return 0;
  }
  static int onDevice(uint16_t code, CommonDevice*, void* self) {
    if (code == static_cast<uint16_t>(EventKind::DiskMounted)) {
      ++static_cast<Client*>(self)->figures_[kBroadcasts];
    }
    return 0;
  }
  static int onAnswer(uint16_t, CmdResponse* response, void* self) {
    auto& client = *static_cast<Client*>(self);
    if (client.name_ != response->text) return 0;  // another client's command
    const std::lock_guard lock(client.mutex_);
    ++client.answers_;
    client.answered_.notify_all();
    return 0;
  }

  /// Whether the script has left service and broker alone since `restarts`.
  bool isQuiet(int64_t restarts) const {
    return restarts % 2 == 0 && script_[kRestarts] == restarts;
  }

  /// Runs one operation and writes down how it ended.
  template <typename Run>
  int measure(Run run) {
    const int64_t restarts = script_[kRestarts];
    const bool hasRecovered = nanosecondsNow() - script_[kQuietSince] > kRecoveryNs;
    const int64_t begin = nanosecondsNow();
    const int result = run();
    const PerixFailureReport report = PerixLastFailure();
    const int64_t end = nanosecondsNow();
    if (const int64_t taken = end - begin; taken > figures_[kLongest]) figures_[kLongest] = taken;
    ++figures_[kOperations];
    const bool failed = report.failure != PerixFailure::None;
    if (!failed && result != -1) figures_[kLastSuccess] = end;
    if (failed) ++figures_[kFailures];
    if ((failed && hasRecovered && isQuiet(restarts)) || (!failed && result == -1)) {
      ++figures_[kUnexplained];
      std::fprintf(stderr, "%s: %s failed with %d: %s\n", name_.c_str(), report.method.c_str(),
                   static_cast<int>(report.failure), report.text.c_str());
    }
    return failed ? -1 : result;
  }

  void callAnything(unsigned int seed) {
    Random random(seed);
    while (!isEnding_) {
      if (!isRegistered_.exchange(true)) {
        PerixProxy::getInstance()->RegisterCallback(kDesktop, &onDesktop, this);
      }
      const Operation operation = kTable[random() % std::size(kTable)];
      measure([&] { return operation(*PerixProxy::getInstance(), random); });
      std::this_thread::sleep_for(kLongestPause * (random() % 100) / 100);
    }
  }

  void list() {
    while (!isEnding_) {
      measure([this] {
        const auto devices = PerixProxy::getInstance()->GetDeviceList("");
        if (!devices.empty() && devices.size() < kDevices) ++figures_[kWrongLists];
        return PerixProxy::getInstance()->FreeDeviceList(devices);
      });
      std::this_thread::sleep_for(kListPause);
    }
  }

  /// Has the service send events, and waits for each.
  void command() {
    while (!isEnding_) {
      const int64_t restarts = script_[kRestarts];
      const int64_t before = answers();
      const int result = measure([this] { return PerixProxy::getInstance()->DoPerixCmd(name_); });
      if (result == 0) awaitAnswer(before, restarts);
      std::this_thread::sleep_for(kCommandPause);
    }
  }

  int64_t answers() {
    const std::lock_guard lock(mutex_);
    return answers_;
  }

  void awaitAnswer(int64_t before, int64_t restarts) {
    std::unique_lock lock(mutex_);
    if (answered_.wait_for(lock, kOutcomePatience, [&] { return answers_ > before; })) {
      ++figures_[kOutcomes];
      figures_[kLastOutcome] = nanosecondsNow();
    } else if (isQuiet(restarts)) {
      ++figures_[kLostOutcomes];
    }
  }

  void movePen() {
    PerixProxy& proxy = *PerixProxy::getInstance();
    int64_t packets = 0;
    proxy.PortInit(kPenPortName, true,
                   [&packets](const std::string&, unsigned int size, unsigned char* data) {
                     if (readPenPacket(data, size)) ++packets;
                     return 0U;
                   });
    auto announcement = penAnnouncement(1);
    proxy.PortData(kPenPortName, announcement.data(), announcement.size());
    for (int32_t x = 0; !isEnding_; ++x) {
      const int64_t before = packets;
      proxy.SendPenEvent({.type = kPenMove, .x = x % 1000, .y = 7});
      ++figures_[packets == before + 1 ? kPenPackets : kWrongPens];
      std::this_thread::sleep_for(kPenPause);
    }
    proxy.PortInit(kPenPortName, false, nullptr);
  }

  const Figures figures_;
  const Figures script_;
  const std::string name_;
  const unsigned int seed_;
  std::atomic<bool> isEnding_ = false;
  std::atomic<bool> isRegistered_ = false;
  std::mutex mutex_;
  std::condition_variable answered_;
  int64_t answers_ = 0;
};

}  // namespace
}  // namespace zq::load

int main(int count, char** arguments) {
  if (count != 4) {
    std::fprintf(stderr, "usage: soak_client FIGURES ROW SEED\n");
    return 2;
  }
  try {
    zq::load::takeStandardOutput();
    zq::load::Client client(arguments[1], std::stoul(arguments[2]),
                            static_cast<unsigned int>(std::stoul(arguments[3])));
    client.run();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak_client: %s\n", error.what());
    return 1;
  }
}
