// Events from the service to a callback of the client, compared with raw sd-bus and its daemon.
#include <algorithm>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_service.h"
#include "bench/paired.h"
#include "bench/raw_bus.h"
#include "bench/rows.h"
#include "perix/perix_proxy.h"

namespace zq::bench {
namespace {

constexpr int kFloodRounds = 31;
constexpr int kFloodEvents = 2000;
constexpr int kLatencyRounds = 101;
constexpr int kLatencyEvents = 20;
constexpr int kApartMicroseconds = 300;  // by then everybody sleeps again
constexpr std::chrono::seconds kPatience{10};

/// What the events of one side's callback come to.
class Tally {
 public:
  void expect(int events) {
    left_ = events;
    latencies_.clear();
  }
  /// One event has reached its callback. True when it was the last.
  bool count(const uint8_t* record) {
    latencies_.push_back(microsecondsNow() - stampOf(record));
    return --left_ == 0;
  }
  double medianLatency() {
    const auto middle = latencies_.begin() + static_cast<std::ptrdiff_t>(latencies_.size() / 2);
    std::nth_element(latencies_.begin(), middle, latencies_.end());
    return *middle;
  }

 private:
  int left_ = 0;
  std::vector<double> latencies_;
};

/// Events as the proxy hands them to a device callback.
class ProxyEvents {
 public:
  ProxyEvents() : proxy_(*PerixProxy::getInstance()) {
    proxy_.RegisterDeviceCallback(&onDevice, this);
  }
  ProxyEvents(const ProxyEvents&) = delete;
  ProxyEvents& operator=(const ProxyEvents&) = delete;
  ~ProxyEvents() { proxy_.UnregisterDeviceCallback(this); }

  Tally& receive(int events, int apart) {
    tally_.expect(events);
    const std::string command = std::to_string(events) + ' ' + std::to_string(apart);
    if (proxy_.DoPerixCmd(command) != 0 || !last_.try_acquire_for(kPatience)) {
      throw std::runtime_error("events were lost");
    }
    return tally_;
  }

 private:
  static int onDevice(uint16_t, CommonDevice* device, void* self) {
    auto& events = *static_cast<ProxyEvents*>(self);
    if (events.tally_.count(reinterpret_cast<const uint8_t*>(device))) events.last_.release();
    return 0;
  }

  PerixProxy& proxy_;
  Tally tally_;  // handed over with the request and with the last event
  std::binary_semaphore last_{0};
};

/// Events as sd-bus hands them to a match callback.
class RawEvents {
 public:
  RawEvents() : bus_(openRawBus()) { matchEventsRaw(bus_.get(), &onEvent, this); }

  Tally& receive(int events, int apart) {
    tally_.expect(events);
    done_ = false;
    requestEventsRaw(bus_.get(), events, apart);
    while (!done_) processRaw(bus_.get());
    return tally_;
  }

 private:
  static int onEvent(sd_bus_message* event, void* self, sd_bus_error*) {
    auto& events = *static_cast<RawEvents*>(self);
    if (events.tally_.count(eventRecordRaw(event))) events.done_ = true;
    return 0;
  }

  RawBus bus_;
  Tally tally_;
  bool done_ = false;
};

template <typename Events>
Side floodOf(Events& events) {
  const Side all = batchOf(1, [&events] { events.receive(kFloodEvents, 0); });
  return [all] { return all() / kFloodEvents; };
}

template <typename Events>
Side latencyOf(Events& events) {
  return [&events] { return events.receive(kLatencyEvents, kApartMicroseconds).medianLatency(); };
}

}  // namespace

void addEventRows(Report& report) {
  ProxyEvents proxy;
  RawEvents raw;
  const Rounds flood(kFloodRounds, {floodOf(proxy), floodOf(raw)});
  // Of rates: how many times as many events a second.
  report.add({"an event in a flood, device callback", flood.median(0),
              "raw sd-bus through the daemon", flood.median(1), flood.ratio(1, 0),
              Target{Target::Kind::AtLeast, 3}});
  const Rounds latency(kLatencyRounds, {latencyOf(proxy), latencyOf(raw)});
  report.add({"an event's latency, device callback", latency.median(0),
              "raw sd-bus through the daemon", latency.median(1), latency.ratio(0, 1),
              Target{Target::Kind::AtMost, 0.6}});
}

}  // namespace zq::bench
