#include "tools/perixctl/record_documents.h"

#include <cstdio>
#include <cstdlib>

namespace zq::ctl {
namespace {

// The values that today's service puts into the bytes of a device record that the layout leaves to
// it.
struct DeviceExtras {
  uint16_t type;
  uint16_t vid;
  uint16_t pid;
};

DeviceExtras extrasOf(const CommonDevice& device) {
  DeviceExtras extras{};
  std::memcpy(&extras.type, device.reserved1, sizeof(extras.type));
  std::memcpy(&extras.vid, device.reserved1 + 2, sizeof(extras.vid));
  std::memcpy(&extras.pid, device.reserved1 + 4, sizeof(extras.pid));
  return extras;
}

// A policy record as today's service lays it out.
struct PolicyRecord {
  uint16_t vid;
  uint16_t pid;
  uint16_t policy;
  char name[128];
};

std::string vidPidText(uint16_t vid, uint16_t pid) {
  char text[10];
  std::snprintf(text, sizeof(text), "%04x:%04x", vid, pid);
  return text;
}

static_assert(kDeviceConnected == 2);

}  // namespace

void DesktopNames::learn(PerixProxy& proxy) {
  for (const auto& [name, id] : proxy.GetVmList()) names_[static_cast<uint32_t>(id)] = name;
}

Json DesktopNames::nameOf(uint32_t id) const {
  const auto found = names_.find(id);
  return found == names_.end() ? Json() : Json(found->second);
}

uint64_t sourceIdOf(const CommonDevice& device) {
  uint64_t sourceId = 0;
  std::memcpy(&sourceId, device.reserved2, sizeof(sourceId));
  return sourceId;
}

Json wordOrNumber(Words words, int64_t number) {
  const char* word = wordFor(words, number, nullptr);
  return word != nullptr ? Json(word) : Json(number);
}

Json deviceDocument(const CommonDevice& device, const DesktopNames& names) {
  const DeviceExtras extras = extrasOf(device);
  return {{"devNumber", device.devNumber},
          {"name", textIn(device.name)},
          {"detail", textIn(device.detail)},
          {"status", device.status},
          {"state", wordOrNumber(kDeviceStates, device.status)},
          {"connected", device.status == kDeviceConnected},
          {"vmId", device.vmId},
          {"desktop", names.nameOf(device.vmId)},
          {"vmIdText", textIn(device.vmIdText)},
          {"localPolicy", device.localPolicy},
          {"policy", wordOrNumber(kPolicies, device.localPolicy)},
          {"type", extras.type},
          {"typeWord", wordOrNumber(kDeviceTypes, extras.type)},
          {"vidPid", vidPidText(extras.vid, extras.pid)},
          {"sourceId", sourceIdOf(device)},
          {"sourceIdText", std::to_string(sourceIdOf(device))}};
}

Json printerDocument(const PrinterDevice& printer, const DesktopNames& names) {
  return {
      {"devNum", printer.devNum}, {"name", textIn(printer.name)},
      {"status", printer.status}, {"state", wordOrNumber(kPrinterStates, printer.status)},
      {"vmId", printer.vmId},     {"desktop", names.nameOf(static_cast<uint32_t>(printer.vmId))}};
}

Json resultDocument(const _ConfigNewDeviceResult& result) {
  return {{"name", textIn(result.name)},
          {"vid", result.vid},
          {"pid", result.pid},
          {"isSuccess", result.isSuccess},
          {"code", textIn(result.code)}};
}

Json commandDocument(const CmdResponse& response) {
  return {{"result", response.result}, {"text", textIn(response.text)}};
}

Outcome deviceTable(PerixProxy& proxy, const std::list<CommonDevice*>& devices) {
  const DesktopNames names(proxy);
  Json rows = Json::array();
  for (const CommonDevice* device : devices) {
    rows.push_back(deviceDocument(recordIn<CommonDevice>(device), names));
  }
  proxy.FreeDeviceList(devices);
  return tableOf(std::move(rows), {{"devNumber", "NUMBER"},
                                   {"name", "NAME"},
                                   {"typeWord", "TYPE"},
                                   {"state", "STATUS"},
                                   {"desktop", "DESKTOP"},
                                   {"policy", "POLICY"},
                                   {"vidPid", "VID:PID"},
                                   {"sourceId", "SOURCE"},
                                   {"detail", "DETAIL"}});
}

Outcome printerTable(PerixProxy& proxy, const std::list<PrinterDevice*>& printers) {
  const DesktopNames names(proxy);
  Json rows = Json::array();
  for (PrinterDevice* printer : printers) {
    rows.push_back(printerDocument(recordIn<PrinterDevice>(printer), names));
    std::free(printer);
  }
  return tableOf(
      std::move(rows),
      {{"devNum", "NUMBER"}, {"name", "NAME"}, {"state", "STATUS"}, {"desktop", "DESKTOP"}});
}

Outcome policyTable(PerixProxy& proxy, const std::list<CommonVidPidPolicy*>& policies) {
  Json rows = Json::array();
  for (const CommonVidPidPolicy* policy : policies) {
    const auto record = recordIn<PolicyRecord>(policy);
    rows.push_back({{"vidPid", vidPidText(record.vid, record.pid)},
                    {"policy", record.policy},
                    {"policyWord", wordOrNumber(kPolicies, record.policy)},
                    {"name", textIn(record.name)}});
  }
  proxy.FreePolicyList(policies);
  return tableOf(std::move(rows),
                 {{"vidPid", "VID:PID"}, {"policyWord", "POLICY"}, {"name", "NAME"}});
}

}  // namespace zq::ctl
