#include "service/model/desktops.h"

#include <algorithm>

namespace zq::devservice {

Desktop* Desktops::find(uint32_t id) {
  const auto found = std::find_if(desktops_.begin(), desktops_.end(),
                                  [id](const Desktop& desktop) { return desktop.id == id; });
  return found == desktops_.end() ? nullptr : &*found;
}

const Desktop* Desktops::find(uint32_t id) const {
  return const_cast<Desktops*>(this)->find(id);
}

uint32_t Desktops::idOf(const std::string& name) const {
  for (const Desktop& desktop : desktops_) {
    if (desktop.name == name) return desktop.id;
  }
  return 0;
}

uint32_t Desktops::preferred() const {
  uint32_t first = 0;
  for (const Desktop& desktop : desktops_) {
    if (desktop.connected && desktop.focused) return desktop.id;
    if (desktop.connected && first == 0) first = desktop.id;
  }
  return first;
}

Result Desktops::connect(uint32_t id, int32_t systemType, int32_t shareMode,
                         uint32_t connectParam) {
  return set(id, [&](Desktop& desktop) {
    desktop.connected = true;
    desktop.systemType = systemType;
    desktop.shareMode = shareMode;
    desktop.connectParam = connectParam;
  });
}

Result Desktops::start(uint32_t id) {
  return set(id, [](Desktop& desktop) { desktop.started = true; });
}

Result Desktops::disconnect(uint32_t id) {
  return set(id, [](Desktop& desktop) {
    Desktop left;
    left.id = desktop.id;
    left.name = desktop.name;
    desktop = left;
  });
}

Result Desktops::focus(uint32_t id, bool gained, int64_t windowId) {
  return set(id, [&](Desktop& focused) {
    if (gained) {
      for (Desktop& desktop : desktops_) desktop.focused = false;
    }
    focused.focused = gained;
    focused.windowId = windowId;
  });
}

Result Desktops::createPipes(const std::vector<PipeOf>& pipes) {
  return changePipes(pipes, [](std::vector<Pipe>& existing, const Pipe& pipe) {
    if (std::count(existing.begin(), existing.end(), pipe) != 0) return Result::AlreadyExists;
    existing.push_back(pipe);
    return Result::Done;
  });
}

Result Desktops::destroyPipes(const std::vector<PipeOf>& pipes) {
  return changePipes(pipes, [](std::vector<Pipe>& existing, const Pipe& pipe) {
    return std::erase(existing, pipe) == 0 ? Result::UnknownPipe : Result::Done;
  });
}

Result Desktops::changePipes(const std::vector<PipeOf>& pipes,
                             Result (*change)(std::vector<Pipe>&, const Pipe&)) {
  Desktops changed = *this;
  for (const PipeOf& entry : pipes) {
    Desktop* desktop = changed.find(entry.desktop);
    if (desktop == nullptr) return Result::UnknownDesktop;
    const Result result = change(desktop->pipes, entry.pipe);
    if (result != Result::Done) return result;
  }
  *this = std::move(changed);
  return Result::Done;
}

Result Desktops::setPort(uint32_t id, uint32_t port, int32_t status) {
  return set(id, [&](Desktop& desktop) { desktop.ports[port] = status; });
}

Result Desktops::setBandwidth(uint32_t id, Bandwidth bandwidth) {
  return set(id, [&](Desktop& desktop) { desktop.bandwidth = bandwidth; });
}

Result Desktops::setQuality(uint32_t id, int64_t type, std::optional<int64_t> value) {
  return set(id, [&](Desktop& desktop) { desktop.quality[type] = value; });
}

Result Desktops::setUsbRedirection(uint32_t id, const std::string& device, uint16_t status) {
  return set(id, [&](Desktop& desktop) { desktop.usbRedirections[device] = status; });
}

Result Desktops::set(uint32_t id, const std::function<void(Desktop&)>& change) {
  Desktop* desktop = find(id);
  if (desktop == nullptr) return Result::UnknownDesktop;
  change(*desktop);
  return Result::Done;
}

}  // namespace zq::devservice
