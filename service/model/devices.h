// The devices of the user's machine and the desktops to which they are connected.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "service/model/desktops.h"
#include "service/model/event_sink.h"
#include "service/model/model.h"

namespace zq::devservice {

/// A decision of the user about a new device; it holds for the device's type from then on.
struct NewDeviceDecision {
  uint64_t sourceId = 0;
  uint16_t type = 0;  ///< the device's type; 0 fits every device
  bool autoConnect = false;
  bool popupCard = true;
};

/// An operation announces every change that a client can see through the event sink before it
/// returns. A refused operation changes and announces nothing.
class Devices {
 public:
  Devices(const Desktops& desktops, EventSink& events) : desktops_(desktops), events_(events) {}

  /// Replaces all devices by the scenario's, without an event.
  void load(const Scenario& scenario);

  /// By number.
  const std::map<uint16_t, Device>& all() const { return devices_; }
  /// The devices that are free or connected to that desktop.
  std::vector<const Device*> usableIn(uint32_t desktop) const;
  const Device* find(uint16_t number) const;
  const Device* findBySource(uint64_t sourceId) const;
  /// The number of the device with that source id, 0 for an unknown source id.
  uint16_t numberOf(uint64_t sourceId) const;
  std::vector<const Device*> ofType(DeviceType type) const;

  [[nodiscard]] Result connect(uint32_t desktop, uint16_t number);
  [[nodiscard]] Result disconnect(uint32_t desktop, uint16_t number);
  /// Mode 0 takes the device out of the desktop, mode 1 connects it.
  [[nodiscard]] Result redirect(uint32_t desktop, uint16_t number, uint16_t mode);
  /// Disconnects all devices of a desktop.
  void release(uint32_t desktop);

  /// When it is switched on, the free devices of the type go to the preferred desktop.
  [[nodiscard]] Result setAutoConnect(uint16_t type, bool on);
  bool autoConnects(DeviceType type) const { return autoConnect_.count(type) != 0; }
  const std::set<DeviceType>& autoConnected() const { return autoConnect_; }
  /// Connects the free devices of the types that connect automatically.
  void connectAutomatically();

  /// Adds a device; `number` gets its number. The device waits for its configuration, unless its
  /// type connects automatically or asks no questions.
  [[nodiscard]] Result plug(Device device, uint16_t& number);
  [[nodiscard]] Result unplug(uint16_t number);
  /// `text` is NAME@ADDRESS, or an address that serves as the name, too.
  [[nodiscard]] Result addNetwork(int32_t type, const std::string& text);
  /// An empty address stands for every address.
  [[nodiscard]] Result removeNetwork(const std::string& name, const std::string& address);

  /// Whether the decision can be carried out. Changes nothing.
  [[nodiscard]] Result checkDecision(const NewDeviceDecision& decision) const;
  /// Carries the decision out: connects or ignores the device and remembers the decision for the
  /// type.
  [[nodiscard]] Result decideConnect(const NewDeviceDecision& decision, uint32_t desktop);
  [[nodiscard]] Result decideIgnore(const NewDeviceDecision& decision);
  [[nodiscard]] Result diskCommand(uint64_t sourceId, int32_t command);

  /// `name` is the name of the device or empty. The policy holds for all devices of the vendor and
  /// product, also for devices that are plugged later.
  [[nodiscard]] Result setPolicy(uint16_t number, uint16_t policy, const std::string& name);
  const std::map<VidPid, VidPidPolicy>& policies() const { return policies_; }

 private:
  Device* edit(uint16_t number);
  uint16_t freeNumber() const;
  uint64_t freeSourceId(uint16_t number) const;
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
