// The service's records as documents, and lists of them.
//
// A record is as long as the service made it. Nothing here reads behind its end: a field that is
// missing counts as zero, and a text ends with its field at the latest.
#pragma once

#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <map>
#include <string>

#include "perix/perix_proxy.h"
#include "perix/service_values.h"
#include "platform/text/field.h"
#include "tools/perixctl/outcome.h"
#include "tools/perixctl/service_words.h"

namespace zq::ctl {

/// Desktops' string ids by integer id.
class DesktopNames {
 public:
  DesktopNames() = default;
  explicit DesktopNames(PerixProxy& proxy) { learn(proxy); }

  /// Asks the service, and forgets nothing when it does not answer.
  void learn(PerixProxy& proxy);

  bool knows(uint32_t id) const { return names_.contains(id); }
  /// The name, or null when there is none.
  Json nameOf(uint32_t id) const;

 private:
  std::map<uint32_t, std::string> names_;
};

/// The record in a `malloc` block of any length, zero behind the block's end. Only the allocator
/// knows that end, and rounds it up by a few bytes, which hold whatever they held.
template <typename Record>
Record recordIn(const void* block) {
  Record record{};
  std::memcpy(&record, block,
              std::min(sizeof(Record), malloc_usable_size(const_cast<void*>(block))));
  return record;
}

Json deviceDocument(const CommonDevice& device, const DesktopNames& names);
Json printerDocument(const PrinterDevice& printer, const DesktopNames& names);
Json resultDocument(const _ConfigNewDeviceResult& result);
Json commandDocument(const CmdResponse& response);

/// The devices as a table's outcome. Frees the list.
Outcome deviceTable(PerixProxy& proxy, const std::list<CommonDevice*>& devices);
Outcome printerTable(PerixProxy& proxy, const std::list<PrinterDevice*>& printers);
Outcome policyTable(PerixProxy& proxy, const std::list<CommonVidPidPolicy*>& policies);

}  // namespace zq::ctl
