// Devices: lists, connection, policies and properties, new-device configuration, joysticks.
#include <cstddef>

#include "bus_call.h"
#include "list_reply.h"
#include "log_line.h"
#include "perix/perix_proxy.h"
#include "platform/text/field.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

/// Writes a desktop's string id into a record of `length` bytes, without a NUL of its own and no
/// further than the record goes.
void nameDesktop(CommonDevice& record, uint32_t length, const std::string& vmId) {
  constexpr std::size_t kOffset = offsetof(CommonDevice, vmIdText);
  if (length > kOffset) vmId.copy(reinterpret_cast<char*>(&record) + kOffset, length - kOffset);
}

}  // namespace

// --- Lists ---------------------------------------------------------------------------------------

std::list<CommonDevice*> PerixProxy::GetDeviceList(std::string vmId) {
  PERIX_DEBUG("vmId: %s", vmId.c_str());
  PerixCall call(*this, "getDeviceList");
  const auto reply = call.desktop(vmId).reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("vmId: %s, list size: %d", vmId.c_str(), reply->readInt32(0));
  return readRecords<CommonDevice>(call, *reply, EmptyBlock::AnError,
                                   [this](const ZQBusBytes& block, CommonDevice& copy) {
                                     const auto received = recordOf<CommonDevice>(block);
                                     if (received.status != kDeviceConnected) return;
                                     nameDesktop(copy, block.size, GetVmIdString(received.vmId));
                                   });
}

std::list<CommonDevice*> PerixProxy::GetDeviceStatus(unsigned short devNumber) {
  PerixCall call(*this, "getDeviceStatus");
  if (!call.alive()) return {};
  PERIX_DEBUG("devNumber: %d", devNumber);
  const auto reply = call.uint16(devNumber).reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("devNumber: %d, list size: %d", devNumber, reply->readInt32(0));
  const LogSite site = here();
  return readRecords<CommonDevice>(
      call, *reply, EmptyBlock::Noted, [site](const ZQBusBytes& block, CommonDevice&) {
        const auto received = recordOf<CommonDevice>(block);
        PERIX_DEBUG_AT(site, "vmId:%d, devNumber:%d, status:%d, name:%s",
                       static_cast<int>(received.vmId), received.devNumber, received.status,
                       fieldText(received.name).c_str());
      });
}

std::list<CommonDevice*> PerixProxy::GetLocalDeviceList() {
  return GetDeviceList(std::string());
}

int PerixProxy::FreeDeviceList(std::list<CommonDevice*> list) {
  freeRecords(list);
  return 0;
}

// --- Connection ----------------------------------------------------------------------------------

int PerixProxy::ConnectDevice(std::string vmId, unsigned short devNumber) {
  PERIX_DEBUG("vmId:%s, devNumber: %d", vmId.c_str(), devNumber);
  return PerixCall(*this, "connectDevice").desktop(vmId).device(devNumber).status();
}

int PerixProxy::DisconnectDevice(std::string vmId, unsigned short devNumber) {
  PERIX_DEBUG("vmId:%s, devNumber: %d", vmId.c_str(), devNumber);
  return PerixCall(*this, "disconnectDevice").desktop(vmId).device(devNumber).status();
}

int PerixProxy::ConnectDeviceBySrcId(std::string vmId, unsigned long long srcId) {
  const auto id = static_cast<int64_t>(srcId);
  PERIX_DEBUG("vmId:%s, srcid: %lld", vmId.c_str(), static_cast<long long>(id));
  return PerixCall(*this, "connectDeviceBySrcId").desktop(vmId).deviceBySource(srcId).status();
}

int PerixProxy::DisconnectDeviceBySrcId(std::string vmId, unsigned long long srcId) {
  const auto id = static_cast<int64_t>(srcId);
  PERIX_DEBUG("vmId:%s,src: %lld", vmId.c_str(), static_cast<long long>(id));
  return PerixCall(*this, "disconnectDeviceBySrcId").desktop(vmId).deviceBySource(srcId).status();
}

int PerixProxy::RedirectDevice(std::string vmId, unsigned short a, unsigned short b) {
  PerixCall call(*this, "redirectDevice", PerixCall::Order::IdBeforeMessage);
  return call.desktop(vmId).device(a).uint16(b).status();
}

int PerixProxy::SetAutoConnect(unsigned short type, int autoConnect) {
  const auto flag = static_cast<uint16_t>(autoConnect);
  return PerixCall(*this, "setAutoConnect").noDesktop().uint16(type).uint16(flag).status();
}

int PerixProxy::GetAutoConnect(unsigned short type) {
  return PerixCall(*this, "getAutoConnect").noDesktop().uint16(type).number(0);
}

int PerixProxy::AddNetworkDevice(int n, std::string& s) {
  return PerixCall(*this, "addNetworkDevice").int32(n).block(s).status();
}

int PerixProxy::DeleteNetworkDevice(std::string& first, std::string& second) {
  return PerixCall(*this, "deleteNetworkDevice").block(first).block(second).status();
}

int PerixProxy::SetUsbredirStatus(std::string vmId, UDevInfo info, unsigned short status) {
  PerixCall call(*this, "setUsbredirStatus");
  return call.desktop(vmId).uint16(status).block(&info, sizeof info).status();
}

int PerixProxy::ConnectUsbredir(std::string, UDevInfo) {
  return 0;
}

int PerixProxy::DisconnectUsbredir(std::string, UDevInfo) {
  return 0;
}

// --- Policies and properties ---------------------------------------------------------------------

int PerixProxy::SetDeviceLocalPolicy(CommonDevice* dev) {
  PerixCall call(*this, "setLocalPolicy");
  call.device(dev->devNumber).uint16(dev->localPolicy);
  return call.block(fieldText(dev->name).view()).block(fieldText(dev->detail).view()).status();
}

int PerixProxy::SetDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                            unsigned short property, int value) {
  PerixCall call(*this, "setDevicePropertyWithVidPid");
  return call.noDesktop().uint16(vid).uint16(pid).int32(property).int32(value).status();
}

// The getters send the product id where the setter sends the property: the service reads it so.

int PerixProxy::GetDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                            unsigned short) {
  PerixCall call(*this, "getDevicePropertyWithVidPid");
  return call.noDesktop().uint16(vid).uint16(pid).int32(pid).number(0);
}

int PerixProxy::GetLocalDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                                 unsigned short) {
  PerixCall call(*this, "getLocalDevicePropertyWithVidPid");
  return call.noDesktop().uint16(vid).uint16(pid).int32(pid).number(0);
}

std::string PerixProxy::GetTurboConfigWithVidPid(unsigned short vid, unsigned short pid) {
  PerixCall call(*this, "getTurboConfigWithVidPid");
  return call.noDesktop().uint16(vid).uint16(pid).answer();
}

int PerixProxy::SetTurboConfigWithVidPid(unsigned short vid, unsigned short pid,
                                         const std::string& config) {
  PerixCall call(*this, "setTurboConfigWithVidPid");
  return call.noDesktop().uint16(vid).uint16(pid).block(config).status(0);
}

int PerixProxy::ResetAllDeviceProperty() {
  return PerixCall(*this, "resetAllDeviceProperty").noDesktop().status(0);
}

int PerixProxy::CheckCameraAuthStat() {
  PerixCall call(*this, "CheckCameraAuthStat");
  const auto reply = call.reply();
  if (reply == nullptr) return -1;
  const int result = call.integer(*reply, 0);
  PERIX_DEBUG("CheckCameraAuthStat result: %d", result);
  return result;
}

std::list<CommonVidPidPolicy*> PerixProxy::GetPolicyListByVidPid() {
  PERIX_DEBUG("");
  PerixCall call(*this, "getPolicyListByVidPid");
  const auto reply = call.noDesktop().reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("list size: %d", reply->readInt32(0));
  return readRecords<CommonVidPidPolicy>(call, *reply);
}

int PerixProxy::FreePolicyList(std::list<CommonVidPidPolicy*> list) {
  freeRecords(list);
  return 0;
}

// --- New devices ---------------------------------------------------------------------------------

int PerixProxy::ConfigNewDeviceAsConnect(const std::string& vmId, unsigned long long sourceId,
                                         unsigned short type, unsigned short autoConnect,
                                         unsigned short popupCardConfig) {
  PERIX_DEBUG(
      "ConfigNewDeviceAsConnect: vmId=%s, sourceId=%ld, type=%d, autoConnect=%d, "
      "popupCardConfig=%d",
      vmId.c_str(), static_cast<long>(sourceId), type, autoConnect, popupCardConfig);
  PerixCall call(*this, "configNewDeviceAsConnect");
  call.words("PerixService is not available", "Failed to config new device as connect: ");
  call.desktop(vmId).sourceId(sourceId).int32(type).int32(autoConnect).int32(popupCardConfig);
  return call.within(10000).logReply("Response").status();
}

int PerixProxy::ConfigNewDeviceAsIgnore(unsigned long long sourceId, unsigned short deviceType,
                                        unsigned short autoConnect,
                                        unsigned short popupCardConfig) {
  PERIX_DEBUG(
      "ConfigNewDeviceAsIgnore: sourceId=%ld, deviceType=%d, autoConnect=%d, popupCardConfig=%d",
      static_cast<long>(sourceId), deviceType, autoConnect, popupCardConfig);
  PerixCall call(*this, "configNewDeviceAsIgnore");
  call.words("PerixService is not available", "Failed to config new device as ignore: ");
  call.sourceId(sourceId).int32(deviceType).int32(autoConnect).int32(popupCardConfig);
  return call.within(2000).status();
}

int PerixProxy::ConfigUdisks2Command(const std::string& vmId, unsigned long long sourceId,
                                     unsigned short command) {
  PERIX_DEBUG("enter");
  PerixCall call(*this, "ConfigUdisks2Command");
  if (!call.alive()) return -1;
  const int32_t id = call.desktopId(vmId);
  PERIX_DEBUG("ConfigUdisks2Command vmId:%s, vmid:%d, sourceId:%ld, command:%d", vmId.c_str(), id,
              static_cast<long>(sourceId), command);
  return call.int32(id).sourceId(sourceId).int32(command).within(10000).logReply().status();
}

// --- Joysticks -----------------------------------------------------------------------------------

std::list<CommonDevice*> PerixProxy::GetJoystickDevList() {
  PerixCall call(*this, "getJoystickDevList");
  const auto reply = call.noDesktop().reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("list size: %d", reply->readInt32(0));
  return readRecords<CommonDevice>(call, *reply);
}

std::string PerixProxy::GetJoystickMappingList(unsigned short vid, unsigned short pid) {
  return PerixCall(*this, "getJoystickMappingList").noDesktop().uint16(vid).uint16(pid).answer();
}

int PerixProxy::SetJoystickMapping(unsigned short vid, unsigned short pid,
                                   const std::string& mapping) {
  PerixCall call(*this, "setJoystickMapping");
  return call.noDesktop().uint16(vid).uint16(pid).block(mapping).status();
}

int PerixProxy::CalibrationJoystick(unsigned short vid, unsigned short pid) {
  return PerixCall(*this, "calibrationJoystick").noDesktop().uint16(vid).uint16(pid).status();
}

}  // namespace zq
