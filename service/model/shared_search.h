// The search for printers that a host of the network shares.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "service/model/model.h"
#include "service/model/timer.h"

namespace zq::devservice {

class SharedSearch {
 public:
  /// `found` is empty unless the result is Done.
  using Done = std::function<void(Result, const std::vector<SharedPrinter>& found)>;

  explicit SharedSearch(Timer& timer) : timer_(timer) {}

  /// Takes the scenario's hosts; running searches end as Stopped.
  void load(const Scenario& scenario);
  const std::vector<SharedHost>& hosts() const { return hosts_; }
  std::size_t running() const { return running_.size(); }

  /// Searches "host" or "host:port" for the time that the scenario gives, then calls `done`.
  void start(const std::string& address, Done done);
  /// Ends every running search as Stopped.
  [[nodiscard]] Result stop();

 private:
  const SharedHost* find(const std::string& address) const;
  void finish(uint64_t id, const std::string& address);

  Timer& timer_;
  std::vector<SharedHost> hosts_;
  int64_t unknownHostMs_ = 0;
  std::map<uint64_t, Done> running_;
  uint64_t lastId_ = 0;
};

}  // namespace zq::devservice
