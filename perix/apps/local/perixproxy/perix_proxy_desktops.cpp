// Desktop sessions and ids, data channels, pen input, tokens and quality, commands and diagnosis.
#include <optional>

#include "bus_call.h"
#include "callback_lock.h"
#include "log_line.h"
#include "no_throw.h"
#include "pen_port.h"
#include "perix/perix_proxy.h"
#include "platform/text/field.h"
#include "tablet_event.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr char kIdMethod[] = "getVmListSize";  // the service looks ids up under this name
constexpr int kIdTimeoutMs = 3000;
constexpr int kDiagnoseTimeoutMs = 10000;
constexpr uint32_t kBandwidthQos = 1;

/// A channel as it is sent.
struct ChannelBlock {
  int32_t desktop;
  uint32_t param1;
  uint32_t param2;
  char label1[128];
  char label2[128];
};
static_assert(sizeof(ChannelBlock) == 268);

/// A port's name for the log: without the path.
const char* shownPort(const std::string& name) {
  const auto at = name.find("space.port");
  return at != std::string::npos ? name.c_str() + at : "(no port)";
}

void appendChannels(PerixCall& call, const std::list<_CHANNEL_HANDLE>& handles) {
  for (const _CHANNEL_HANDLE& handle : handles) {
    ChannelBlock block{};
    block.desktop = call.desktopId(handle.vmId);
    block.param1 = handle.param1;
    block.param2 = handle.param2;
    setField(block.label1, fieldText(handle.label1).view());
    setField(block.label2, fieldText(handle.label2).view());
    call.block(&block, sizeof block);
  }
}

/// Calls and waits; the service's result. Only failures are logged.
int pipeResult(PerixCall& call) {
  const auto reply = call.reply();
  if (reply == nullptr) return -1;
  const int result = call.result(*reply);
  if (result != 0) PERIX_ERROR_AT(call.site(), "ret = %d", result);
  return result;
}

/// Sends an event at a position, which need not be the event's own. The operation's result.
int sendPen(PenPort& port, const PenEvent& event, int x, int y, LogSite site = here()) {
  port.record(event, x, y);
  std::optional<PenPortHeader> sent;
  guarded([&] { sent = port.send(); }, site);
  if (sent) {
    PERIX_DEBUG_AT(
        site, "size:%d, devId:%d,cmd: %d, reqId:%d,type:%d,pressure:%f,x:%d,y:%d, posx:%d, posy:%d",
        static_cast<int>(sent->size), sent->devId, sent->cmd, static_cast<int>(sent->reqId),
        event.type, event.pressure, event.x, event.y, event.x, event.y);
  }
  return 0;
}

/// Notes how a look-up of a desktop's id ended.
void noteLookUp(const ZQBusMessage& reply, std::chrono::steady_clock::duration took) {
  std::string text;
  LastFailure& last = lastFailure();
  last.setFrom(reply, kIdMethod, "the desktop's id is unknown: " + reply.readString(text, 0));
  if (reply.type() == 2) hasArgument<int32_t>(reply, 0, kIdMethod);
  last.waiting = {};
  last.lookUps = last.total = std::chrono::duration_cast<std::chrono::microseconds>(took);
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
    noteNotAsked("connectVm", "a collaborator announces no desktop");
    return -1;
  }
  const int32_t id = call.desktopId(info.vmId);
  PERIX_DEBUG("ConnectVM vmId:%s, vmid:%d", info.vmId.c_str(), id);
  call.int32(id).int32(info.systemType).int32(info.shareMode);
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
  PerixCall call(*this, "onFocusChanged", PerixCall::Order::NoLock);
  call.desktop(vmId).int32(static_cast<int32_t>(gainFocus)).int64(static_cast<int64_t>(windowId));
  const auto reply = call.within(500).reply();
  if (reply == nullptr) return -1;
  const int result = call.result(*reply);
  PERIX_DEBUG("ret: %d", result);
  return result;
}

// --- Ids -----------------------------------------------------------------------------------------

std::map<std::string, int> PerixProxy::GetVmList() try {
  PerixCall call(*this, "getVmList");
  const auto reply = call.noDesktop().reply();
  if (reply == nullptr) return {};
  std::map<std::string, int> desktops;
  const int32_t count = call.integer(*reply, 0);
  PERIX_DEBUG("vm list size: %d", count);
  // Pairs of name and id; a count that exceeds the pairs that came is reduced to them.
  const std::size_t pairs = count > 0 ? static_cast<std::size_t>(count) : 0;
  for (std::size_t i = 0;
       i < 2 * pairs && call.has<std::string>(*reply, i + 1) && call.has<int32_t>(*reply, i + 2);
       i += 2) {
    const std::string vmId = call.string(*reply, i + 1);
    const int id = call.integer(*reply, i + 2);
    desktops[vmId] = id;
    PERIX_DEBUG("vmid[%s]~ maped to id[%d]", vmId.c_str(), id);
  }
  return desktops;
} catch (...) {
  return gaveUp("getVmList", std::map<std::string, int>());
}

unsigned int PerixProxy::GetVmIdInt(std::string vmId) try {
  if (vmId.empty()) return 0;
  const auto service = serviceProxy.get();
  if (const unsigned int known = knownId(vmId); known != 0) return known;
  if (service == nullptr) {
    noteNoService(kIdMethod);
    return 0;
  }
  const auto start = std::chrono::steady_clock::now();
  const auto request = service->makeMethodCallMessage(kIdMethod);
  request->appendString(vmId);
  const auto reply = service->callWithReplyBlocking(request, kIdTimeoutMs);
  noteLookUp(*reply, std::chrono::steady_clock::now() - start);
  if (reply->type() != 2) return 0;
  const auto id = static_cast<unsigned int>(reply->readInt32(0));
  PERIX_DEBUG("vmid[%s]~ maped to id[%d] from dornservice", vmId.c_str(), static_cast<int>(id));
  if (id != 0) rememberId(*service, id, vmId);
  return id;
} catch (...) {
  return gaveUp(kIdMethod, 0U);
}

/// The id of a desktop that the service, or without a service the last service, has told before;
/// else 0.
unsigned int PerixProxy::knownId(const std::string& vmId) {
  const ProcessLock lock(idMapMutex);
  if (!lock) return 0;
  for (const auto& [id, name] : vmIdMap) {
    if (name == vmId) return id;
  }
  return 0;
}

/// Does nothing when another process has become the service during the look-up.
void PerixProxy::rememberId(const ZQBusProxyInterface& service, unsigned int id,
                            const std::string& vmId) {
  const ProcessLock lock(idMapMutex);
  if (lock && service.owner() == idOwner) vmIdMap[id] = vmId;
}

std::string PerixProxy::GetVmIdString(unsigned int id) try {
  const ProcessLock lock(idMapMutex);
  if (!lock) return {};
  const auto found = vmIdMap.find(id);
  return found != vmIdMap.end() ? found->second : std::string();
} catch (...) {
  return gaveUp(std::string());
}

// --- Pipes and ports -----------------------------------------------------------------------------

int PerixProxy::CreatePipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles) {
  PerixCall call(*this, "createPipe");
  if (!call.alive()) return -1;
  const int32_t id = call.desktopId(vmId);
  call.int32(id).int32(static_cast<int32_t>(handles.size()));
  PERIX_DEBUG("vmId: %s, list size: %ld id:%d", vmId.c_str(), static_cast<long>(handles.size()),
              id);
  appendChannels(call, handles);
  return pipeResult(call.logReply());
}

int PerixProxy::DestroyPipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles) {
  PerixCall call(*this, "destroyPipe");
  if (!call.alive()) return -1;
  call.desktop(vmId).int32(static_cast<int32_t>(handles.size()));
  PERIX_DEBUG("vmId: %s, list size: %ld", vmId.c_str(), static_cast<long>(handles.size()));
  appendChannels(call, handles);
  return pipeResult(call);
}

int PerixProxy::SetPortChannelStatus(std::string vmId, unsigned int port, int status) {
  PERIX_DEBUG("vmId:%s, port:%d, status:%d", vmId.c_str(), static_cast<int>(port), status);
  PerixCall call(*this, "setPortChannelStatus");
  const auto reply = call.desktop(vmId).int32(static_cast<int32_t>(port)).int32(status).reply();
  if (reply == nullptr) return -1;
  const int result = call.result(*reply);
  PERIX_DEBUG("ret: %d", result);
  return result;
}

void PerixProxy::PortInit(
    const std::string& name, bool opened,
    std::function<unsigned int(const std::string&, unsigned int, unsigned char*)> sendFn) try {
  PERIX_DEBUG("name: %s, opened: %d", shownPort(name), opened);
  if (PenPort::isPenPort(name)) penPort->init(name, opened, std::move(sendFn));
} catch (...) {
  logThrown();
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
  const auto pen = readTabletEvent(event);
  if (!pen) {
    PERIX_ERROR("serialize event failed");
    return -1;
  }
  return sendPen(*penPort, *pen, x == -1 ? pen->x : x, y == -1 ? pen->y : y);
}

int PerixProxy::SendPenEvent(const PenEvent& event) {
  return sendPen(*penPort, event, event.x, event.y);
}

// --- Tokens and network quality ------------------------------------------------------------------

int PerixProxy::UpdateDriveToken(std::string token) {
  if (token.empty()) {
    PERIX_ERROR("token is NULL");
    noteNotAsked("updateDriveToken", "the token is empty");
    return -1;
  }
  PERIX_DEBUG("token:%s", token.c_str());
  return PerixCall(*this, "updateDriveToken").secret(token).status();
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
  diagnoseNotify = notify;
  // The call mutex is free again while this waits for a callback: the callback may make a call.
  const int result = PerixCall(*this, "diagnose", PerixCall::Order::IdBeforeLock)
                         .desktop(vmId)
                         .within(kDiagnoseTimeoutMs)
                         .status();
  if (result != 0) forgetDiagnoseNotify(notify);
  return result;
}

int PerixProxy::DiagnoseDevice(std::string vmId, unsigned long long srcId,
                               PerixDiagnoseNotify* notify) {
  diagnoseNotify = notify;
  const int result = PerixCall(*this, "diagnoseDevice", PerixCall::Order::IdBeforeLock)
                         .desktop(vmId)
                         .deviceBySource(srcId)
                         .within(kDiagnoseTimeoutMs)
                         .status();
  if (result != 0) forgetDiagnoseNotify(notify);
  return result;
}

int PerixProxy::StopDiagnoseNotify(PerixDiagnoseNotify* notify) {
  forgetDiagnoseNotify(notify);
  return inForkedChild() ? -1 : 0;
}

/// Removes a notifier, if it is the registered one, and waits until it is no longer called.
void PerixProxy::forgetDiagnoseNotify(PerixDiagnoseNotify* notify) {
  diagnoseNotify.compare_exchange_strong(notify, nullptr);
  // It is read and called under this lock, which this thread holds inside a callback.
  if (!InsideCallback::now()) const ProcessLock untilItReturned(callbackMutex);
}

int PerixProxy::DoPerixTest(const std::string& name) {
  return PerixCall(*this, "doPerixTest").noDesktop().text(name).number(-1);
}

int PerixProxy::DoPerixCmd(const std::string& command) {
  return PerixCall(*this, "doPerixCmd").noDesktop().text(command).status();
}

std::string PerixProxy::GetPerixCmdHelp() {
  return PerixCall(*this, "getPerixCmdHelp").noDesktop().answer();
}

}  // namespace zq
