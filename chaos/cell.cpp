#include "chaos/cell.h"

#include <algorithm>
#include <set>

namespace zq::chaos {

std::string Setting::name() const {
  return fault.kind + ("/" + way) + "/" + broker + "/" + std::to_string(threads);
}

std::vector<Setting> allSettings() {
  std::vector<Setting> all;
  for (const Fault& fault : kFaults) {
    for (const char* way : kWays) {
      for (const char* broker : kBrokers) {
        for (const int threads : kThreads) all.push_back({fault, way, broker, threads});
      }
    }
  }
  return all;
}

std::optional<Setting> settingOf(const std::string& name) {
  for (const Setting& setting : allSettings()) {
    if (setting.name() == name) return setting;
  }
  return std::nullopt;
}

std::vector<NamedWireRow> allOperations() {
  std::vector<NamedWireRow> rows;
  std::set<std::string> calls;
  for (const NamedWireRow& row : wireTable()) {
    if (row.row.sends.empty() || calls.insert(row.row.sends).second) rows.push_back(row);
  }
  return rows;
}

uint32_t seedOf(const std::string& cell, uint32_t seed) {
  constexpr uint32_t kPrime = 16777619;  // FNV-1a
  uint32_t hash = 2166136261U ^ seed;
  for (const char character : cell) hash = (hash ^ static_cast<unsigned char>(character)) * kPrime;
  return hash;
}

}  // namespace zq::chaos
