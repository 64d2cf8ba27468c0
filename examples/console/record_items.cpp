#include "record_items.h"

#include <array>

namespace zq::console {
namespace {

struct StateWord {
  const char* word;
  Light light;
};

// What the states of today's service mean, by their numbers.
constexpr std::array kDeviceStates = {
    StateWord{"Idle", Light::Off},
    StateWord{"Waiting for configuration", Light::Attention},
    StateWord{"Connected", Light::On},
    StateWord{"Ignored", Light::Off},
};
static_assert(kDeviceConnected == 2);
constexpr std::array kPrinterStates = {
    StateWord{"Idle", Light::Off},
    StateWord{"Paused", Light::Attention},
    StateWord{"Connected", Light::On},
    StateWord{"Printing", Light::On},
};

struct EventWord {
  uint16_t code;
  const char* text;
};
constexpr EventWord kDeviceEvents[] = {
    {4, "changed"},
    {5, "was refused its automatic connection"},
    {6, "arrived"},
    {kDeviceRemoved, "was removed"},
    {10, "is new and waits for its configuration"},
    {64, "was mounted"},
    {65, "was unmounted"},
};

void setState(Item& item, const std::array<StateWord, 4>& words, int64_t state) {
  const bool known = state >= 0 && state < static_cast<int64_t>(words.size());
  const StateWord word = known ? words[static_cast<std::size_t>(state)] : StateWord{};
  item.state = known ? QString(word.word) : QString("State %1").arg(state);
  item.light = word.light;
}

}  // namespace

QString deviceEventText(uint16_t code) {
  for (const EventWord& word : kDeviceEvents) {
    if (word.code == code) return word.text;
  }
  return QString("event %1").arg(code);
}

Item itemOf(const CommonDevice& device, const QString& desktop) {
  Item item;
  item.key = QString::number(device.devNumber);
  item.name = textIn(device.name);
  item.detail = textIn(device.detail);
  setState(item, kDeviceStates, device.status);
  item.connected = device.status == kDeviceConnected;
  if (item.connected) item.desktop = desktop;
  return item;
}

Item itemOf(const PrinterDevice& printer, const QString& desktop) {
  Item item;
  item.key = QString::number(printer.devNum);
  item.name = textIn(printer.name);
  setState(item, kPrinterStates, printer.status);
  item.connected = printer.vmId != 0;
  if (item.connected) item.desktop = desktop;
  return item;
}

Item desktopItem(const QString& name, bool sessionOpen) {
  Item item;
  item.key = name;
  item.name = name;
  item.state = sessionOpen ? "Session open" : "No session";
  item.light = sessionOpen ? Light::On : Light::Off;
  item.connected = sessionOpen;
  return item;
}

}  // namespace zq::console
