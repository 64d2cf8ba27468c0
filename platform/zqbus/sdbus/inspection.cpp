#include "zqbus/inspection.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kWanted = SD_BUS_CREDS_PID | SD_BUS_CREDS_EUID | SD_BUS_CREDS_UNIQUE_NAME;

/// What the credentials tell; takes them over.
ZQBusParty partyOf(sd_bus_creds* credentials) {
  ZQBusParty party;
  const char* name = nullptr;
  pid_t process = 0;
  uid_t user = 0;
  if (sd_bus_creds_get_unique_name(credentials, &name) >= 0) party.uniqueName = name;
  if (sd_bus_creds_get_pid(credentials, &process) >= 0) party.process = process;
  if (sd_bus_creds_get_euid(credentials, &user) >= 0) party.user = user;
  sd_bus_creds_unref(credentials);
  return party;
}

bool isActivatable(sd_bus* bus, const std::string& name) {
  char** names = nullptr;
  if (sd_bus_list_names(bus, nullptr, &names) < 0) return false;
  bool found = false;
  for (char** each = names; each != nullptr && *each != nullptr; ++each) {
    found = found || name == *each;
    std::free(*each);
  }
  std::free(names);
  return found;
}

/// Asks the bus, each time within the rest of the time.
void inspect(sd_bus* bus, Clock::time_point deadline, ZQBusInspection& found) {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
  sd_bus_set_method_call_timeout(bus,
                                 left.count() > 0 ? static_cast<uint64_t>(left.count()) / 4 : 1);
  sd_bus_creds* credentials = nullptr;
  if (sd_bus_get_owner_creds(bus, SD_BUS_CREDS_PID | SD_BUS_CREDS_EUID, &credentials) >= 0) {
    found.bus = partyOf(credentials);
  }
  const int result = sd_bus_get_name_creds(bus, found.name.c_str(), kWanted, &credentials);
  if (result >= 0) {
    found.owner = partyOf(credentials);
  } else if (result == -ETIMEDOUT || result == -ECONNRESET || result == -ENOTCONN) {
    found.problem = "the bus at " + found.address + " does not answer: " + std::strerror(-result);
  }
  found.isActivatable = found.problem.empty() && isActivatable(bus, found.name);
}

}  // namespace

ZQBusInspection inspectZQBus(const std::string& service, std::chrono::milliseconds limit) {
  const auto deadline = endOf(limit);
  ZQBusInspection found;
  found.name = serviceName(service);
  found.address = busAddress(found.variable);
  const SdBus bus = openSdBus(deadline, Descriptors::Refused, found.problem);
  if (bus == nullptr) return found;
  found.user = userOn(bus.get(), deadline);
  inspect(bus.get(), deadline, found);
  return found;
}

}  // namespace zq
