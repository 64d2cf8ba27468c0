#include "service/model/shared_search.h"

#include <utility>

namespace zq::devservice {

void SharedSearch::load(const Scenario& scenario) {
  (void)stop();
  hosts_ = scenario.hosts;
  unknownHostMs_ = scenario.timing.unknownHost;
}

const SharedHost* SharedSearch::find(const std::string& address) const {
  const std::string host = address.substr(0, address.find(':'));
  for (const SharedHost& candidate : hosts_) {
    if (candidate.address == address || candidate.address == host) return &candidate;
  }
  return nullptr;
}

void SharedSearch::start(const std::string& address, Done done) {
  const SharedHost* host = find(address);
  const std::chrono::milliseconds duration(host == nullptr ? unknownHostMs_ : host->searchMs);
  const uint64_t id = ++lastId_;
  running_.emplace(id, std::move(done));
  timer_.after(duration, [this, id, address] { finish(id, address); });
}

void SharedSearch::finish(uint64_t id, const std::string& address) {
  const auto search = running_.extract(id);
  if (search.empty()) return;  // stopped meanwhile
  const SharedHost* host = find(address);
  if (host == nullptr || !host->reachable) return search.mapped()(Result::HostNotFound, {});
  search.mapped()(Result::Done, host->printers);
}

Result SharedSearch::stop() {
  const auto stopped = std::exchange(running_, {});
  for (const auto& [id, done] : stopped) done(Result::Stopped, {});
  return stopped.empty() ? Result::NothingToStop : Result::Done;
}

}  // namespace zq::devservice
