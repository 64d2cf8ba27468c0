#include "tools/perixctl/record_documents.h"

#include <cstdio>
#include <cstdlib>

namespace zq::ctl {
namespace {

std::string vidPidText(uint16_t vid, uint16_t pid) {
  char text[10];
  std::snprintf(text, sizeof(text), "%04x:%04x", vid, pid);
  return text;
}

// The word that the service's number stands for; the number where there is none.
template <typename Value, typename Number>
Json wordOrNumber(Number number) {
  const char* text = TextOf(static_cast<Value>(number));
  return text != nullptr ? Json(text) : Json(number);
}

}  // namespace

void DesktopNames::learn(PerixProxy& proxy) {
  for (const auto& [name, id] : proxy.GetVmList()) names_[static_cast<uint32_t>(id)] = name;
}

Json DesktopNames::nameOf(uint32_t id) const {
  const auto found = names_.find(id);
  return found == names_.end() ? Json() : Json(found->second);
}

Json deviceDocument(const CommonDevice& device, const DesktopNames& names) {
  const DeviceDetails details = DetailsOf(device);
  return {{"devNumber", device.devNumber},
          {"name", textIn(device.name)},
          {"detail", textIn(device.detail)},
          {"status", device.status},
          {"state", wordOrNumber<DeviceStatus>(device.status)},
          {"connected", device.status == kDeviceConnected},
          {"vmId", device.vmId},
          {"desktop", names.nameOf(device.vmId)},
          {"vmIdText", textIn(device.vmIdText)},
          {"localPolicy", device.localPolicy},
          {"policy", wordOrNumber<DevicePolicy>(device.localPolicy)},
          {"type", details.type},
          {"typeWord", wordOrNumber<DeviceType>(details.type)},
          {"vidPid", vidPidText(details.vid, details.pid)},
          {"sourceId", details.sourceId},
          {"sourceIdText", std::to_string(details.sourceId)}};
}

Json printerDocument(const PrinterDevice& printer, const DesktopNames& names) {
  return {
      {"devNum", printer.devNum}, {"name", textIn(printer.name)},
      {"status", printer.status}, {"state", wordOrNumber<PrinterStatus>(printer.status)},
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
    const auto record = recordIn<CommonVidPidPolicy>(policy);
    rows.push_back({{"vidPid", vidPidText(record.vid, record.pid)},
                    {"policy", record.policy},
                    {"policyWord", wordOrNumber<DevicePolicy>(record.policy)},
                    {"name", textIn(record.name)}});
  }
  proxy.FreePolicyList(policies);
  return tableOf(std::move(rows),
                 {{"vidPid", "VID:PID"}, {"policyWord", "POLICY"}, {"name", "NAME"}});
}

}  // namespace zq::ctl
