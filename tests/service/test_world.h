// A world without a bus: its events are recorded, and its time passes when a test says so.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "perix/records.h"
#include "service/model/world.h"
#include "service/scenario/scenario.h"

namespace zq::devservice {

class ManualTimer : public Timer {
 public:
  void after(std::chrono::milliseconds delay, std::function<void()> task) override {
    tasks_.emplace(now_ + delay, std::move(task));
  }
  void pass(std::chrono::milliseconds time) {
    const auto until = now_ + time;
    while (!tasks_.empty() && tasks_.begin()->first <= until) {
      auto task = tasks_.extract(tasks_.begin());
      now_ = task.key();
      task.mapped()();
    }
    now_ = until;
  }

 private:
  std::chrono::milliseconds now_{0};
  std::multimap<std::chrono::milliseconds, std::function<void()>> tasks_;
};

class RecordedEvents : public EventSink {
 public:
  void send(const Event& event) override { events.push_back(event); }
  void broadcast(const Event& event) override { broadcasts.push_back(event); }

  std::vector<Event> events;
  std::vector<Event> broadcasts;
};

template <typename Record>
Record recordOf(const ZQBusBytes& bytes) {
  Record record{};
  EXPECT_EQ(bytes.size, sizeof record);
  std::memcpy(&record, bytes.data.get(), std::min<std::size_t>(bytes.size, sizeof record));
  return record;
}

/// The office, its first desktop connected.
class OfficeWorld : public testing::Test {
 protected:
  OfficeWorld() {
    std::vector<std::string> mistakes;
    const auto office = loadScenario(PERIX_SCENARIO_DIR "/office.toml", mistakes);
    EXPECT_TRUE(office) << testing::PrintToString(mistakes);
    if (office) world.load(*office);
    EXPECT_EQ(world.connectDesktop(kOffice, 0, 0, 0), Result::Done);
  }

  /// Plugs a device, and returns its number.
  uint16_t plug(const Device& device) {
    uint16_t number = 0;
    EXPECT_EQ(world.devices.plug(device, number), Result::Done);
    return number;
  }
  uint16_t plug(const std::string& name) { return plug(Device{.name = name}); }
  const Device& device(uint16_t number) const { return world.devices.all().at(number); }
  /// The kinds of the events since the last time.
  std::vector<int> kinds() {
    std::vector<int> kinds;
    for (const Event& event : std::exchange(events.events, {})) {
      kinds.push_back(static_cast<int>(event.kind));
    }
    return kinds;
  }

  static constexpr uint32_t kOffice = 1;
  static constexpr uint32_t kLab = 2;
  static constexpr uint32_t kNowhere = 9;
  static constexpr uint16_t kCamera = 1;
  static constexpr uint16_t kDisk = 2;
  static constexpr uint16_t kForbidden = 8;
  static constexpr std::chrono::milliseconds kLong{10'000};

  RecordedEvents events;
  ManualTimer timer;
  World world{events, timer};
};

}  // namespace zq::devservice
