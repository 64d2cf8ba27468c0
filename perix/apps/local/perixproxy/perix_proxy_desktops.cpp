// Desktop sessions and ids, data channels, pen input, tokens and quality, commands and diagnosis.
#include "bus_call.h"
#include "log_line.h"
#include "pen_event.h"
#include "pen_port.h"
#include "perix/perix_proxy.h"
#include "record_text.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr int kIdTimeoutMs = 3000;
constexpr uint32_t kBandwidthQos = 1;

/// A channel as it travels.
struct ChannelBlock {
  int32_t desktop;
  uint32_t param1;
  uint32_t param2;
  char label1[128];
  char label2[128];
};
static_assert(sizeof(ChannelBlock) == 268);

/// What the log shows of a port's name: it goes without the path in front.
const char* shownPort(const std::string& name) {
  const auto at = name.find("space.port");
  return at != std::string::npos ? name.c_str() + at : "(no port)";
}

void appendChannels(PerixCall& call, PerixProxy& proxy, const std::list<_CHANNEL_HANDLE>& handles) {
  for (const _CHANNEL_HANDLE& handle : handles) {
    ChannelBlock block{};
    block.desktop = static_cast<int32_t>(proxy.GetVmIdInt(handle.vmId));
    block.param1 = handle.param1;
    block.param2 = handle.param2;
    setField(block.label1, fieldText(handle.label1));
    setField(block.label2, fieldText(handle.label2));
    call.block(&block, sizeof block);
  }
}

int logPipeResult(int result, LogSite site = here()) {
  if (result != 0) PERIX_ERROR_AT(site, "ret = %d", result);
  return result;
}

}  // namespace

// --- Sessions ------------------------------------------------------------------------------------

int PerixProxy::ConnectVm(VmInfo info) {
  PERIX_DEBUG(
      "vmId:%s, systemType:%d, shareMode:%d, sessionId:%u, lumMajorVer:%u, lumMinorVer:%u "
      "lumStreamCollaborateType:%u",
      info.vmId.c_str(), info.systemType, info.shareMode, info.sessionId, info.lumMajorVer,
      info.lumMinorVer, info.lumStreamCollaborateType);
  PerixCall call(*this, "connectVm");
  if (!call.alive()) return -1;
  if (info.lumStreamCollaborateType == PERIX_LUM_STREAM_COLLAB_TYPE_COLLABORATOR) {
    PERIX_DEBUG("don't ConnectVm when PERIX_LUM_STREAM_COLLAB_TYPE_COLLABORATOR");
    return -1;
  }
  const unsigned int id = GetVmIdInt(info.vmId);
  PERIX_DEBUG("ConnectVM vmId:%s, vmid:%d", info.vmId.c_str(), static_cast<int>(id));
  call.int32(static_cast<int32_t>(id)).int32(info.systemType).int32(info.shareMode);
  return call.int32(static_cast<int32_t>(info.connectParam)).within(2000).logReply().status();
}

int PerixProxy::DisconnectVm(std::string vmId) {
  return PerixCall(*this, "disconnectVm").desktop(vmId).send();
}

int PerixProxy::StartVm(std::string vmId) {
  PERIX_DEBUG("call startmanager");
  PERIX_DEBUG("vmId: %s ", vmId.c_str());
  return PerixCall(*this, "startManager").desktop(vmId).send();
}

int PerixProxy::OnFocusChanged(std::string vmId, uint64_t windowId, uint32_t gainFocus) {
  PERIX_DEBUG("vmId:%s, gainFocus:%d windowId:%lld", vmId.c_str(), static_cast<int>(gainFocus),
              static_cast<long long>(windowId));
  // The focus changes while other operations wait for seconds; it must not wait for them.
  PerixCall call(*this, "onFocusChanged", PerixCall::Locking::None);
  call.desktop(vmId).int32(static_cast<int32_t>(gainFocus)).int64(static_cast<int64_t>(windowId));
  const auto reply = call.within(500).reply();
  if (reply == nullptr) return -1;
  PERIX_DEBUG("ret: %d", reply->readInt32(0));
  return reply->readInt32(0);
}

// --- Ids -----------------------------------------------------------------------------------------

std::map<std::string, int> PerixProxy::GetVmList() {
  std::map<std::string, int> desktops;
  PerixCall call(*this, "getVmList");
  const auto reply = call.noDesktop().reply();
  if (reply == nullptr) return desktops;
  const int32_t count = reply->readInt32(0);
  PERIX_DEBUG("vm list size: %d", count);
  // Pairs of name and id; a count that promises more than came is cut to what came.
  const std::size_t pairs = count > 0 ? static_cast<std::size_t>(count) : 0;
  for (std::size_t i = 0; i < 2 * pairs && i + 2 < reply->argCount(); i += 2) {
    std::string vmId;
    reply->readString(vmId, i + 1);
    const int id = reply->readInt32(i + 2);
    desktops[vmId] = id;
    PERIX_DEBUG("vmid[%s]~ maped to id[%d]", vmId.c_str(), id);
  }
  return desktops;
}

unsigned int PerixProxy::GetVmIdInt(std::string vmId) {
  if (vmId.empty()) return 0;
  {
    const std::lock_guard lock(idMapMutex);
    for (const auto& [id, name] : vmIdMap) {
      if (name == vmId) return id;
    }
  }
  const auto service = serviceProxy.get();
  if (service == nullptr) return 0;
  // The service looks ids up under this name.
  const auto request = service->makeMethodCallMessage("getVmListSize");
  request->appendString(vmId);
  const auto reply = service->callWithReplyBlocking(request, kIdTimeoutMs);
  if (reply->type() != 2) return 0;
  const auto id = static_cast<unsigned int>(reply->readInt32(0));
  PERIX_DEBUG("vmid[%s]~ maped to id[%d] from dornservice", vmId.c_str(), static_cast<int>(id));
  const std::lock_guard lock(idMapMutex);
  if (id != 0) vmIdMap[id] = vmId;
  return id;
}

std::string PerixProxy::GetVmIdString(unsigned int id) {
  const std::lock_guard lock(idMapMutex);
  const auto found = vmIdMap.find(id);
  return found != vmIdMap.end() ? found->second : std::string();
}

// --- Pipes and ports -----------------------------------------------------------------------------

int PerixProxy::CreatePipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles) {
  PerixCall call(*this, "createPipe");
  if (!call.alive()) return -1;
  const auto id = static_cast<int32_t>(GetVmIdInt(vmId));
  call.int32(id).int32(static_cast<int32_t>(handles.size()));
  PERIX_DEBUG("vmId: %s, list size: %ld id:%d", vmId.c_str(), static_cast<long>(handles.size()),
              id);
  appendChannels(call, *this, handles);
  const auto reply = call.logReply().reply();
  return reply != nullptr ? logPipeResult(reply->readInt32(0)) : -1;
}

int PerixProxy::DestroyPipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles) {
  PerixCall call(*this, "destroyPipe");
  if (!call.alive()) return -1;
  call.desktop(vmId).int32(static_cast<int32_t>(handles.size()));
  PERIX_DEBUG("vmId: %s, list size: %ld", vmId.c_str(), static_cast<long>(handles.size()));
  appendChannels(call, *this, handles);
  const auto reply = call.reply();
  return reply != nullptr ? logPipeResult(reply->readInt32(0)) : -1;
}

int PerixProxy::SetPortChannelStatus(std::string vmId, unsigned int port, int status) {
  PERIX_DEBUG("vmId:%s, port:%d, status:%d", vmId.c_str(), static_cast<int>(port), status);
  PerixCall call(*this, "setPortChannelStatus");
  const auto reply = call.desktop(vmId).int32(static_cast<int32_t>(port)).int32(status).reply();
  if (reply == nullptr) return -1;
  PERIX_DEBUG("ret: %d", reply->readInt32(0));
  return reply->readInt32(0);
}

void PerixProxy::PortInit(
    const std::string& name, bool opened,
    std::function<unsigned int(const std::string&, unsigned int, unsigned char*)> sendFn) {
  PERIX_DEBUG("name: %s, opened: %d", shownPort(name), opened);
  if (PenPort::isPenPort(name)) penPort->init(name, opened, std::move(sendFn));
}

void PerixProxy::PortStatus(const std::string& name, bool opened) {
  PERIX_DEBUG("name: %s, opened: %d", shownPort(name), opened);
  if (PenPort::isPenPort(name)) penPort->setOpened(opened);
}

void PerixProxy::PortData(const std::string&, unsigned char* data, unsigned int) {
  if (penPort->knowsPen()) return;
  const PenPortHeader header = penPort->receive(data);
  PERIX_DEBUG("magic:0x%.2x,cmd:%d,devId:%d,reqId:%d", header.magic, header.cmd, header.devId,
              static_cast<int>(header.reqId));
}

int PerixProxy::SendPenData(std::string, void* event, int type, int x, int y) {
  if (type != 0) {
    PERIX_DEBUG("type: %d", type);
    return -1;
  }
  const auto pen = readPenEvent(event);
  if (!pen) {
    PERIX_ERROR("serialize event failed");
    return -1;
  }
  penPort->record(*pen, x == -1 ? pen->posX : x, y == -1 ? pen->posY : y);
  if (const PenPortHeader* const sent = penPort->send()) {
    PERIX_DEBUG(
        "size:%d, devId:%d,cmd: %d, reqId:%d,type:%d,pressure:%f,x:%d,y:%d, posx:%d, posy:%d",
        static_cast<int>(sent->size), sent->devId, sent->cmd, static_cast<int>(sent->reqId),
        pen->type, pen->pressure, pen->x, pen->y, pen->posX, pen->posY);
  }
  return 0;
}

// --- Tokens and network quality ------------------------------------------------------------------

int PerixProxy::UpdateDriveToken(std::string token) {
  if (token.empty()) {
    PERIX_ERROR("token is NULL");
    return -1;
  }
  PERIX_DEBUG("token:%s", token.c_str());
  return PerixCall(*this, "updateDriveToken").block(token).status();
}

void PerixProxy::SetBwInfo(const std::string& vmId, unsigned long long value1,
                           unsigned long long value2) {
  PerixCall(*this, "setBwInfo")
      .desktop(vmId)
      .int64(static_cast<int64_t>(value1))
      .int64(static_cast<int64_t>(value2))
      .send();
}

void PerixProxy::SetRtcQosInfo(const std::string& vmId, unsigned int type, void* info) {
  PERIX_DEBUG("vmId:%s", vmId.c_str());
  PerixCall call(*this, "setRtcQosInfo");
  call.desktop(vmId).int64(type);
  if (type == kBandwidthQos && info != nullptr) call.int64(*static_cast<const uint32_t*>(info));
  call.send();
}

// --- Commands and diagnosis ----------------------------------------------------------------------

int PerixProxy::Diagnose(std::string vmId, PerixDiagnoseNotify* notify) {
  reconnect();
  setDiagnoseNotify(notify);
  const auto id = static_cast<int32_t>(GetVmIdInt(vmId));
  return PerixCall(*this, "diagnose").int32(id).within(10000).status();
}

int PerixProxy::DiagnoseDevice(std::string vmId, unsigned long long srcId,
                               PerixDiagnoseNotify* notify) {
  reconnect();
  setDiagnoseNotify(notify);
  const auto id = static_cast<int32_t>(GetVmIdInt(vmId));
  PerixCall call(*this, "diagnoseDevice");
  return call.int32(id).int64(static_cast<int64_t>(srcId)).within(10000).status();
}

void PerixProxy::setDiagnoseNotify(PerixDiagnoseNotify* notify) {
  const std::lock_guard lock(callbackMutex);
  diagnoseNotify = notify;
}

int PerixProxy::DoPerixTest(const std::string& name) {
  return PerixCall(*this, "doPerixTest").noDesktop().text(name).status();
}

int PerixProxy::DoPerixCmd(const std::string& command) {
  return PerixCall(*this, "doPerixCmd").noDesktop().text(command).status();
}

std::string PerixProxy::GetPerixCmdHelp() {
  return PerixCall(*this, "getPerixCmdHelp").noDesktop().answer();
}

}  // namespace zq
