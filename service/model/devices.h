// The devices of the user's machine, and which desktop has which.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "service/model/desktops.h"
#include "service/model/event_sink.h"
#include "service/model/model.h"

namespace zq::devservice {

/// What the user decided about a new device, and about its type from now on.
struct NewDeviceDecision {
  uint64_t sourceId = 0;
  uint16_t type = 0;  ///< the device's type; 0 stands for whatever it is
  bool autoConnect = false;
  bool popupCard = true;
};

/// Every change that a client can see is announced through the event sink before the operation
/// returns. Refused operations change and announce nothing.
class Devices {
 public:
  Devices(const Desktops& desktops, EventSink& events) : desktops_(desktops), events_(events) {}

  /// The scenario's devices in place of all others, without announcing anything.
  void load(const Scenario& scenario);

  /// By number.
  const std::map<uint16_t, Device>& all() const { return devices_; }
  /// Those that are free or connected to that desktop.
  std::vector<const Device*> usableIn(uint32_t desktop) const;
  const Device* find(uint16_t number) const;
  const Device* findBySource(uint64_t sourceId) const;
  /// The number of the device with that source id, 0 when there is none.
  uint16_t numberOf(uint64_t sourceId) const;
  std::vector<const Device*> ofType(DeviceType type) const;

  [[nodiscard]] Result connect(uint32_t desktop, uint16_t number);
  [[nodiscard]] Result disconnect(uint32_t desktop, uint16_t number);
  /// Mode 0 takes the device out of the desktop, mode 1 connects it.
  [[nodiscard]] Result redirect(uint32_t desktop, uint16_t number, uint16_t mode);
  /// Disconnects all devices of a desktop.
  void release(uint32_t desktop);

  /// Switching it on connects what is free of that type to the preferred desktop.
  [[nodiscard]] Result setAutoConnect(uint16_t type, bool on);
  bool autoConnects(DeviceType type) const { return autoConnect_.count(type) != 0; }
  const std::set<DeviceType>& autoConnected() const { return autoConnect_; }
  /// Connects what is free of the types that connect automatically.
  void connectAutomatically();

  /// A device is plugged; `number` gets its number. What is unknown waits for its configuration,
  /// unless its type connects automatically or asks no questions.
  [[nodiscard]] Result plug(Device device, uint16_t& number);
  [[nodiscard]] Result unplug(uint16_t number);
  /// `text` is NAME@ADDRESS or an address that is the name too.
  [[nodiscard]] Result addNetwork(int32_t type, const std::string& text);
  /// An empty address stands for any.
  [[nodiscard]] Result removeNetwork(const std::string& name, const std::string& address);

  /// Whether the decision can be carried out, changing nothing.
  [[nodiscard]] Result checkDecision(const NewDeviceDecision& decision) const;
  /// Carries the decision out: remembers it for the type, and connects or ignores the device.
  [[nodiscard]] Result decideConnect(const NewDeviceDecision& decision, uint32_t desktop);
  [[nodiscard]] Result decideIgnore(const NewDeviceDecision& decision);
  [[nodiscard]] Result diskCommand(uint64_t sourceId, int32_t command);

  /// `name` must be the device's or empty. The policy holds for all devices of the vendor and
  /// product, those that are plugged later too.
  [[nodiscard]] Result setPolicy(uint16_t number, uint16_t policy, const std::string& name);
  const std::map<VidPid, VidPidPolicy>& policies() const { return policies_; }

 private:
  Device* edit(uint16_t number);
  uint16_t freeNumber() const;
  Device* insert(Device device);
  void announce(EventKind kind, const Device& device);
  void connectAutomatically(Device& device);
  void free(Device& device);
  void remember(const NewDeviceDecision& decision, DeviceType type);
  Result mount(Device& device);
  Result unmount(Device& device);
  Result eject(Device& device);

  const Desktops& desktops_;
  EventSink& events_;
  std::map<uint16_t, Device> devices_;
  std::map<VidPid, VidPidPolicy> policies_;
  std::set<DeviceType> autoConnect_;
  std::set<DeviceType> silent_;  ///< types whose new devices ask no questions
};

}  // namespace zq::devservice
