#include "service/model/devices.h"

#include <algorithm>

#include "service/model/wire_records.h"

namespace zq::devservice {
namespace {

constexpr uint16_t kLastNumber = 65535;

bool isDeviceType(int64_t type) {
  return type >= static_cast<int>(DeviceType::Usb) && type <= static_cast<int>(DeviceType::Printer);
}

void setMember(std::set<DeviceType>& types, DeviceType type, bool member) {
  if (member) {
    types.insert(type);
  } else {
    types.erase(type);
  }
}

bool isFree(const Device& device) {
  return device.desktop == 0 && device.status != DeviceStatus::Ignored;
}

}  // namespace

void Devices::load(const Scenario& scenario) {
  devices_.clear();
  policies_ = scenario.policies;
  autoConnect_ = {scenario.autoConnect.begin(), scenario.autoConnect.end()};
  silent_.clear();
  // Devices with a number come first, so that no other device gets their numbers.
  for (const bool numbered : {true, false}) {
    for (const Device& device : scenario.devices) {
      if ((device.number != 0) == numbered) insert(device);
    }
  }
}

std::vector<const Device*> Devices::usableIn(uint32_t desktop) const {
  std::vector<const Device*> usable;
  for (const auto& [number, device] : devices_) {
    if (device.desktop == 0 || device.desktop == desktop) usable.push_back(&device);
  }
  return usable;
}

const Device* Devices::find(uint16_t number) const {
  const auto found = devices_.find(number);
  return found == devices_.end() ? nullptr : &found->second;
}

Device* Devices::edit(uint16_t number) {
  const auto found = devices_.find(number);
  return found == devices_.end() ? nullptr : &found->second;
}

const Device* Devices::findBySource(uint64_t sourceId) const {
  return find(numberOf(sourceId));
}

uint16_t Devices::numberOf(uint64_t sourceId) const {
  for (const auto& [number, device] : devices_) {
    if (device.sourceId == sourceId) return number;
  }
  return 0;
}

std::vector<const Device*> Devices::ofType(DeviceType type) const {
  std::vector<const Device*> found;
  for (const auto& [number, device] : devices_) {
    if (device.type == type) found.push_back(&device);
  }
  return found;
}

Result Devices::connect(uint32_t desktopId, uint16_t number) {
  const Desktop* desktop = desktops_.find(desktopId);
  Device* device = edit(number);
  if (desktop == nullptr) return Result::UnknownDesktop;
  if (device == nullptr) return Result::UnknownDevice;
  if (!desktop->connected) return Result::DesktopNotConnected;
  if (device->desktop == desktopId) return Result::AlreadyConnected;
  if (device->desktop != 0) return Result::ConnectedElsewhere;
  if (device->policy == DevicePolicy::Forbid) return Result::Forbidden;
  device->desktop = desktopId;
  device->status = DeviceStatus::Connected;
  announce(EventKind::DeviceState, *device);
  return Result::Done;
}

Result Devices::disconnect(uint32_t desktop, uint16_t number) {
  Device* device = edit(number);
  if (desktops_.find(desktop) == nullptr) return Result::UnknownDesktop;
  if (device == nullptr) return Result::UnknownDevice;
  if (device->desktop != desktop) return Result::NotConnectedHere;
  free(*device);
  return Result::Done;
}

Result Devices::redirect(uint32_t desktop, uint16_t number, uint16_t mode) {
  switch (mode) {
    case 0:
      return disconnect(desktop, number);
    case 1:
      return connect(desktop, number);
    default:
      return Result::InvalidArgument;
  }
}

void Devices::release(uint32_t desktop) {
  for (auto& [number, device] : devices_) {
    if (device.desktop == desktop) free(device);
  }
}

void Devices::free(Device& device) {
  device.desktop = 0;
  device.status = DeviceStatus::Idle;
  announce(EventKind::DeviceState, device);
}

Result Devices::setAutoConnect(uint16_t type, bool on) {
  if (!isDeviceType(type)) return Result::InvalidArgument;
  setMember(autoConnect_, static_cast<DeviceType>(type), on);
  connectAutomatically();
  return Result::Done;
}

void Devices::connectAutomatically() {
  for (auto& [number, device] : devices_) {
    if (isFree(device) && autoConnects(device.type)) connectAutomatically(device);
  }
}

void Devices::connectAutomatically(Device& device) {
  const uint32_t desktop = desktops_.preferred();
  if (desktop == 0 || connect(desktop, device.number) == Result::Done) return;
  announce(EventKind::DeviceRefused, device);
}

Result Devices::plug(Device device, uint16_t& number) {
  device.desktop = 0;
  device.status = DeviceStatus::Idle;
  const bool asks = !autoConnects(device.type) && silent_.count(device.type) == 0;
  if (device.number != 0 && find(device.number) != nullptr) return Result::AlreadyExists;
  if (device.sourceId != 0 && numberOf(device.sourceId) != 0) return Result::AlreadyExists;
  Device* plugged = insert(std::move(device));
  if (plugged == nullptr) return Result::NoFreeNumber;
  number = plugged->number;
  if (asks) plugged->status = DeviceStatus::Waiting;
  announce(EventKind::DeviceArrived, *plugged);
  if (plugged->mounted) events_.broadcast({0, EventKind::DiskMounted, deviceRecord(*plugged)});
  if (asks) announce(EventKind::NewDevice, *plugged);
  if (autoConnects(plugged->type)) connectAutomatically(*plugged);
  return Result::Done;
}

Result Devices::unplug(uint16_t number) {
  const auto found = devices_.find(number);
  if (found == devices_.end()) return Result::UnknownDevice;
  if (found->second.desktop != 0) free(found->second);
  const Device gone = std::move(found->second);
  devices_.erase(found);
  announce(EventKind::DeviceRemoved, gone);
  return Result::Done;
}

Result Devices::addNetwork(int32_t type, const std::string& text) {
  const std::size_t at = text.find('@');
  Device device;
  device.name = text.substr(0, at);
  device.address = at == std::string::npos ? text : text.substr(at + 1);
  device.detail = device.address;
  device.network = true;
  if (!isDeviceType(type) || device.name.empty() || device.address.empty()) {
    return Result::InvalidArgument;
  }
  if (device.name.size() > kDeviceNameLimit || device.detail.size() > kDeviceDetailLimit) {
    return Result::InvalidArgument;
  }
  for (const auto& [number, other] : devices_) {
    if (other.network && other.name == device.name) return Result::AlreadyExists;
  }
  device.type = static_cast<DeviceType>(type);
  Device* added = insert(std::move(device));
  if (added == nullptr) return Result::NoFreeNumber;
  announce(EventKind::DeviceArrived, *added);
  return Result::Done;
}

Result Devices::removeNetwork(const std::string& name, const std::string& address) {
  for (const auto& [number, device] : devices_) {
    const bool named = device.network && device.name == name;
    if (named && (address.empty() || device.address == address)) return unplug(number);
  }
  return Result::UnknownDevice;
}

Result Devices::checkDecision(const NewDeviceDecision& decision) const {
  const Device* device = findBySource(decision.sourceId);
  if (device == nullptr) return Result::UnknownDevice;
  if (decision.type != 0 && decision.type != static_cast<uint16_t>(device->type)) {
    return Result::WrongDeviceType;
  }
  if (device->status != DeviceStatus::Waiting) return Result::NotWaiting;
  return Result::Done;
}

Result Devices::decideConnect(const NewDeviceDecision& decision, uint32_t desktop) {
  const Result possible = checkDecision(decision);
  if (possible != Result::Done) return possible;
  const Device* device = findBySource(decision.sourceId);
  const Result connected = connect(desktop, device->number);
  if (connected == Result::Done) remember(decision, device->type);
  return connected;
}

Result Devices::decideIgnore(const NewDeviceDecision& decision) {
  const Result possible = checkDecision(decision);
  if (possible != Result::Done) return possible;
  Device* device = edit(numberOf(decision.sourceId));
  device->status = DeviceStatus::Ignored;
  announce(EventKind::DeviceState, *device);
  remember(decision, device->type);
  return Result::Done;
}

void Devices::remember(const NewDeviceDecision& decision, DeviceType type) {
  setMember(autoConnect_, type, decision.autoConnect);
  setMember(silent_, type, !decision.popupCard);
}

Result Devices::diskCommand(uint64_t sourceId, int32_t command) {
  Device* device = edit(numberOf(sourceId));
  if (device == nullptr) return Result::UnknownDevice;
  if (device->type != DeviceType::Disk) return Result::NotADisk;
  switch (static_cast<DiskCommand>(command)) {
    case DiskCommand::Mount:
      return mount(*device);
    case DiskCommand::Unmount:
      return unmount(*device);
    case DiskCommand::Eject:
      return eject(*device);
  }
  return Result::InvalidArgument;
}

Result Devices::mount(Device& device) {
  if (device.mounted) return Result::AlreadyExists;
  device.mounted = true;
  events_.broadcast({device.desktop, EventKind::DiskMounted, deviceRecord(device)});
  return Result::Done;
}

Result Devices::unmount(Device& device) {
  if (!device.mounted) return Result::NotMounted;
  device.mounted = false;
  announce(EventKind::DiskUnmounted, device);
  return Result::Done;
}

Result Devices::eject(Device& device) {
  if (device.mounted) (void)unmount(device);
  return unplug(device.number);
}

Result Devices::setPolicy(uint16_t number, uint16_t policy, const std::string& name) {
  const Device* device = find(number);
  if (device == nullptr) return Result::UnknownDevice;
  if (!name.empty() && name != device->name) return Result::UnknownDevice;
  if (policy > static_cast<uint16_t>(DevicePolicy::Forbid)) return Result::InvalidArgument;
  const VidPidPolicy decided{static_cast<DevicePolicy>(policy), device->name};
  const VidPid id = device->id;
  if (id != VidPid{}) policies_[id] = decided;
  for (auto& [other, same] : devices_) {
    if (other != number && (id == VidPid{} || same.id != id)) continue;
    same.policy = decided.policy;
    announce(EventKind::DeviceState, same);
  }
  return Result::Done;
}

uint16_t Devices::freeNumber() const {
  if (devices_.empty()) return 1;
  const uint16_t last = devices_.rbegin()->first;
  if (last < kLastNumber) return last + 1;
  uint16_t candidate = 1;
  for (const auto& [number, device] : devices_) {
    if (number != candidate) return candidate;
    ++candidate;
  }
  return 0;
}

uint64_t Devices::freeSourceId(uint16_t number) const {
  uint64_t id = derivedSourceId(number);
  while (numberOf(id) != 0) id += derivedSourceId(0);
  return id;
}

Device* Devices::insert(Device device) {
  if (device.number == 0) device.number = freeNumber();
  if (device.number == 0) return nullptr;
  if (device.sourceId == 0) device.sourceId = freeSourceId(device.number);
  const auto known = policies_.find(device.id);
  if (known != policies_.end()) device.policy = known->second.policy;
  const uint16_t number = device.number;
  return &devices_.insert_or_assign(number, std::move(device)).first->second;
}

void Devices::announce(EventKind kind, const Device& device) {
  events_.send({device.desktop, kind, deviceRecord(device)});
}

}  // namespace zq::devservice
