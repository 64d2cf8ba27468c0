#include "bench/bench_service.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "perix/records.h"
#include "tools/embedded/child_process.h"
#include "zqbus/zqbus_service.h"

namespace zq::bench {
namespace {

constexpr std::size_t kStampOffset = offsetof(CommonDevice, reserved3);

ZQBusMessage answerOf(int32_t number) {
  ZQBusMessage message;
  message.appendInt32(number);
  return message;
}

ZQBusMessage deviceList() {
  ZQBusMessage message = answerOf(kListRecords);
  const std::string record(kRecordSize, '\1');  // status 0x0101: connected to no desktop
  for (int i = 0; i < kListRecords; ++i) message.appendBytes(record.data(), kRecordSize);
  return message;
}

void sendEvents(ZQBusService& service, ZQBusCall& call) {
  std::string command;
  std::istringstream words(call.message().readString(command, 1));
  int events = 0;
  int apart = 0;
  if (!(words >> events >> apart)) return call.fail("how many events, how far apart?");
  call.reply(answerOf(0));
  sendStamped(events, apart, [&service](const EventRecord& record) {
    ZQBusMessage event(ZQBusMessageType::Event, kEvent);
    event.appendInt32(kDesktopId);
    event.appendInt32(kEventKind);
    event.appendBytes(record.data(), record.size());
    service.sendEvent(kEvent, event);
  });
}

/// What comes every so many microseconds. The kernel sets the timer for the next tick when one is
/// read. To sleep instead would set it right after an event was sent: on one CPU, where that comes
/// before the event's reader gets to run, it was a third of the latency.
class Ticks {
 public:
  explicit Ticks(int apart) : timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
    const timespec period{0, apart * 1000L};
    const itimerspec times{period, period};
    ::timerfd_settime(timer_, 0, &times, nullptr);
  }
  ~Ticks() { ::close(timer_); }
  Ticks(const Ticks&) = delete;
  Ticks& operator=(const Ticks&) = delete;

  void next() const {
    uint64_t ticks = 0;
    if (::read(timer_, &ticks, sizeof ticks) != sizeof ticks) std::abort();
  }

 private:
  const int timer_;
};

}  // namespace

double microsecondsNow() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::micro>(now).count();
}

double stampOf(const uint8_t* record) {
  double stamp = 0;
  std::memcpy(&stamp, record + kStampOffset, sizeof stamp);
  return stamp;
}

void sendStamped(int events, int apart, const std::function<void(const EventRecord&)>& send) {
  EventRecord record{};
  const Ticks ticks(apart);
  for (int i = 0; i < events; ++i) {
    if (apart > 0) ticks.next();
    const double stamp = microsecondsNow();
    std::memcpy(record.data() + kStampOffset, &stamp, sizeof stamp);
    send(record);
  }
}

int runBenchService() {
  const std::map<std::string, ZQBusMessage> answers = {
      {"connectDevice", answerOf(0)},
      {"getVmListSize", answerOf(kDesktopId)},
      {"getDeviceList", deviceList()},
  };
  std::string error;
  std::unique_ptr<ZQBusService> service;
  service = ZQBusService::claim(
      "perix", {},
      [&](const std::shared_ptr<ZQBusCall>& call) {
        if (call->message().name() == "doPerixCmd") return sendEvents(*service, *call);
        const auto answer = answers.find(call->message().name());
        if (answer == answers.end()) return call->failUnknownMethod();
        call->reply(answer->second);
      },
      error);
  if (service == nullptr) {
    std::fprintf(stderr, "perix_bench: %s\n", error.c_str());
    return 1;
  }
  if (::write(ChildProcess::kReadinessDescriptor, "ready\n", 6) != 6) return 1;
  for (;;) ::pause();
}

}  // namespace zq::bench
