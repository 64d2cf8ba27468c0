// The desktops: their sessions, focus, pipes, ports and reports.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "service/model/model.h"

namespace zq::devservice {

/// A pipe and its desktop.
struct PipeOf {
  uint32_t desktop = 0;
  Pipe pipe;
};

class Desktops {
 public:
  void load(const std::vector<Desktop>& desktops) { desktops_ = desktops; }

  const std::vector<Desktop>& all() const { return desktops_; }
  /// Null for an unknown id. Valid until the next load().
  Desktop* find(uint32_t id);
  const Desktop* find(uint32_t id) const;
  /// The id of the desktop with that name, 0 for an unknown name.
  uint32_t idOf(const std::string& name) const;
  /// The desktop for automatic connections: the connected desktop that has the focus, else the
  /// first connected desktop, else 0.
  uint32_t preferred() const;

  [[nodiscard]] Result connect(uint32_t id, int32_t systemType, int32_t shareMode,
                               uint32_t connectParam);
  [[nodiscard]] Result start(uint32_t id);
  [[nodiscard]] Result disconnect(uint32_t id);
  [[nodiscard]] Result focus(uint32_t id, bool gained, int64_t windowId);

  /// Creates all pipes, or none when one of them is refused.
  [[nodiscard]] Result createPipes(const std::vector<PipeOf>& pipes);
  [[nodiscard]] Result destroyPipes(const std::vector<PipeOf>& pipes);
  [[nodiscard]] Result setPort(uint32_t id, uint32_t port, int32_t status);
  [[nodiscard]] Result setBandwidth(uint32_t id, Bandwidth bandwidth);
  [[nodiscard]] Result setQuality(uint32_t id, int64_t type, std::optional<int64_t> value);
  [[nodiscard]] Result setUsbRedirection(uint32_t id, const std::string& device, uint16_t status);

 private:
  Result set(uint32_t id, const std::function<void(Desktop&)>& change);
  Result changePipes(const std::vector<PipeOf>& pipes,
                     Result (*change)(std::vector<Pipe>&, const Pipe&));

  std::vector<Desktop> desktops_;
};

}  // namespace zq::devservice
