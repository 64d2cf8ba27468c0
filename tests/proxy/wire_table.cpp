#include "wire_table.h"

#include <cctype>
#include <concepts>
#include <cstring>

#include "platform/text/field.h"
#include "tests/support/messages.h"
#include "tests/support/token.h"

namespace zq {
namespace {

constexpr char kDesk[] = "desk-3";
constexpr UDevInfo kUsb = {{1, 2, 3, 4, 5, 6, 7, 8}};
constexpr unsigned long long kSource = 0x0102030405060708;

std::string show(int value) {
  return std::to_string(value);
}
std::string show(const std::string& text) {
  return '"' + text + '"';
}

struct Words {
  std::string text;
};
std::string show(const Words& words) {
  return words.text;
}

template <typename Record>
std::string show(const std::list<Record*>& records) {
  std::string shown;
  for (Record* record : records) {
    shown += '<' + std::string(reinterpret_cast<const char*>(record), 2) + '>';
    std::free(record);
  }
  return shown;
}

std::string show(const std::map<std::string, int>& desktops) {
  std::string shown;
  for (const auto& [name, id] : desktops) shown += name + '=' + std::to_string(id) + ' ';
  return shown;
}

VmInfo session(uint32_t role) {
  return {kDesk, 1, 2, 0x80000003, 4, 5, 6, role};
}

std::list<_CHANNEL_HANDLE> channels() {
  _CHANNEL_HANDLE handle{"other-9", 10, 11, "one", {}};
  std::memset(handle.label2, 'x', sizeof handle.label2 - 1);
  return {handle};
}

Words search(PerixProxy& proxy) {
  std::list<_SharePrinterDevice> found = {{"kept", "", ""}};
  std::string shown = show(proxy.SearchSharePrinterDevice("10.0.0.5:9100", found));
  for (const auto& printer : found) shown += ' ' + std::string(printer.name) + '@' + printer.addr;
  return {shown};
}

void quality(PerixProxy& proxy, unsigned int type, bool withInfo) {
  uint32_t value = 7;
  proxy.SetRtcQosInfo(kDesk, type, withInfo ? &value : nullptr);
}

// --- Kinds of rows -------------------------------------------------------------------------------

using P = PerixProxy;

/// A row that sends what stands in `sends`: "Name: method(arguments)", or "method(arguments)" when
/// the operation has the name of its method. show() shows what `run` returns for `arguments`.
template <typename Run, typename... Arguments>
NamedWireRow row(std::string sends, int timeoutMs, ZQBusMessage reply, std::string result,
                 std::string failure, Run run, Arguments... arguments) {
  std::string name = sends.substr(0, sends.find_first_of(":("));
  if (sends.starts_with(name + ": ")) sends.erase(0, name.size() + 2);
  name[0] = static_cast<char>(std::toupper(name[0]));
  return {name,
          {sends, timeoutMs, std::move(reply), std::move(result), std::move(failure),
           [=](P& p) mutable { return show(std::invoke(run, p, arguments...)); }}};
}

constexpr char kFails[] = "-1";
constexpr char kFailsWithZero[] = "0";

template <typename... Run>
NamedWireRow status(const std::string& sends, int timeoutMs, const char* failure, Run... run) {
  return row(sends, timeoutMs, message(int32_t{5}), "5", failure, run...);
}
template <typename Run, typename... Arguments>
requires std::invocable<Run, P&, Arguments&...> NamedWireRow status(const std::string& sends,
                                                                    Run run,
                                                                    Arguments... arguments) {
  return status(sends, 3000, kFails, run, arguments...);
}
template <typename... Run>
NamedWireRow text(const std::string& sends, int timeoutMs, Run... run) {
  return row(sends, timeoutMs, message(std::string("all")), R"("all")", R"("")", run...);
}
template <typename... Run>
NamedWireRow list(const std::string& sends, Run... run) {
  return row(sends, 3000, message(int32_t{2}, bytes("aa"), bytes("bb")), "<aa><bb>", "", run...);
}
template <typename... Run>
NamedWireRow sent(const std::string& sends, Run... run) {
  return row(sends, kNoWait, message(int32_t{5}), "0", kFails, run...);
}
/// Returns nothing, without waiting.
template <typename Run>
NamedWireRow untold(const std::string& sends, Run run) {
  const auto nothing = [run](P& p) { return run(p), Words(); };
  return row(sends, kNoWait, message(int32_t{5}), "", "", nothing);
}
template <typename... Run>
NamedWireRow unsent(const std::string& name, const char* result, Run... run) {
  return row(name + ": ", 0, {}, result, result, run...);
}

const std::string kId8 = "ay[8] 08 07 06 05 04 03 02 01";
const std::vector<NamedWireRow> kTable = {
    status("resetService()", &P::ResetService),
    status("connectVm(i:3, i:1, i:2, i:-2147483645)", 2000, kFails, &P::ConnectVm, session(0)),
    unsent("ConnectVmAsCollaborator", "-1", &P::ConnectVm, session(1)),
    sent("disconnectVm(i:3)", &P::DisconnectVm, kDesk),
    sent("StartVm: startManager(i:3)", &P::StartVm, kDesk),
    row("getVmList(i:0)", 3000,
        message(int32_t{2}, std::string("a"), int32_t{1}, std::string("b"), int32_t{2}), "a=1 b=2 ",
        "", &P::GetVmList),
    row("GetVmListCutShort: getVmList(i:0)", 3000,
        message(int32_t{9}, std::string("a"), int32_t{1}, std::string("b")), "a=1 ", "",
        &P::GetVmList),
    row("GetVmListOfNegativeCount: getVmList(i:0)", 3000, message(int32_t{-1}), "", "",
        &P::GetVmList),
    status("onFocusChanged(i:3, i:1, x:-1)", 500, kFails, &P::OnFocusChanged, kDesk, UINT64_MAX, 1),
    status("createPipe(i:3, i:1, ay[268] 09 00 00 00 0a 00 00 00 0b 00 00 00 6f 6e 65 00...)",
           &P::CreatePipe, kDesk, channels()),
    status("destroyPipe(i:3, i:0)", [](P& p) { return p.DestroyPipe(kDesk, {}); }),
    status("setPortChannelStatus(i:3, i:-1, i:-2)", &P::SetPortChannelStatus, kDesk, 0xFFFFFFFF,
           -2),
    status("updateDriveToken(ay[14] 6b 65 70 74 2d 66 72 6f 6d 2d 76 69 65 77)",
           &P::UpdateDriveToken, kDriveToken),
    unsent("UpdateDriveTokenEmpty", "-1", &P::UpdateDriveToken, ""),
    untold("setBwInfo(i:3, x:1, x:-1)", [](P& p) { p.SetBwInfo(kDesk, 1, UINT64_MAX); }),
    untold("SetRtcQosInfoOfBandwidth: setRtcQosInfo(i:3, x:1, x:7)",
           [](P& p) { return quality(p, 1, true); }),
    untold("SetRtcQosInfoOfBandwidthWithoutInfo: setRtcQosInfo(i:3, x:1)",
           [](P& p) { return quality(p, 1, false); }),
    untold("SetRtcQosInfoOfAnotherType: setRtcQosInfo(i:3, x:4294967295)",
           [](P& p) { return quality(p, UINT32_MAX, true); }),
    list("getDeviceList(i:3)", &P::GetDeviceList, kDesk),
    list("GetDeviceListOfUnknownDesktop: getDeviceList(i:0)", &P::GetDeviceList, "nowhere"),
    row("GetDeviceListCutByEmptyRecord: getDeviceList(i:3)", 3000,
        message(int32_t{3}, bytes("aa"), bytes(""), bytes("cc")), "<aa>", "", &P::GetDeviceList,
        kDesk),
    row("GetDeviceListOfTooHighCount: getDeviceList(i:3)", 3000,
        message(int32_t{INT32_MAX}, bytes("aa"), std::string("bb")), "<aa>", "", &P::GetDeviceList,
        kDesk),
    row("GetDeviceListOfWrongTypes: getDeviceList(i:3)", 3000,
        message(std::string("2"), bytes("aa")), "", "", &P::GetDeviceList, kDesk),
    list("getDeviceStatus(q:65535)", &P::GetDeviceStatus, 65535),
    list("GetLocalDeviceList: getDeviceList(i:0)", &P::GetLocalDeviceList),
    row("connectDevice(i:3, q:7)", 3000, message(int32_t{-5}), "-5", kFails, &P::ConnectDevice,
        kDesk, 7),
    status("disconnectDevice(i:3, q:7)", &P::DisconnectDevice, kDesk, 7),
    status("connectDeviceBySrcId(i:3, x:-1)", &P::ConnectDeviceBySrcId, kDesk, UINT64_MAX),
    status("disconnectDeviceBySrcId(i:3, x:1)", &P::DisconnectDeviceBySrcId, kDesk, 1),
    status("redirectDevice(i:3, q:1, q:2)", &P::RedirectDevice, kDesk, 1, 2),
    status("SetAutoConnectSendsSixteenBits: setAutoConnect(i:0, q:4, q:1)", &P::SetAutoConnect, 4,
           0x10001),
    row("getAutoConnect(i:0, q:4)", 3000, message(int32_t{1}), "1", "0", &P::GetAutoConnect, 4),
    status("addNetworkDevice(i:-3, ay[0])", &P::AddNetworkDevice, -3, std::string()),
    status("deleteNetworkDevice(ay[1] 61, ay[2] 62 63)", &P::DeleteNetworkDevice, std::string("a"),
           std::string("bc")),
    status("setUsbredirStatus(i:3, q:9, ay[8] 01 02 03 04 05 06 07 08)", &P::SetUsbredirStatus,
           kDesk, kUsb, 9),
    unsent("ConnectUsbredir", "0", &P::ConnectUsbredir, kDesk, kUsb),
    unsent("DisconnectUsbredir", "0", &P::DisconnectUsbredir, kDesk, kUsb),
    status("SetDeviceLocalPolicy: setLocalPolicy(q:7, q:8, ay[3] 63 61 6d, ay[0])",
           [](P& p) {
             CommonDevice d{.devNumber = 7, .localPolicy = 8, .name = "cam"};
             return p.SetDeviceLocalPolicy(&d);
           }),
    status("setDevicePropertyWithVidPid(i:0, q:4660, q:22136, i:7, i:-2)",
           &P::SetDevicePropertyWithVidPid, 0x1234, 0x5678, 7, -2),
    status("GetDevicePropertyWithVidPidSendsThePidTwice: getDevicePropertyWithVidPid(i:0, "
           "q:4660, q:65535, i:65535)",
           3000, kFailsWithZero, &P::GetDevicePropertyWithVidPid, 0x1234, 0xFFFF, 7),
    status("GetLocalDevicePropertyWithVidPidSendsThePidTwice: "
           "getLocalDevicePropertyWithVidPid(i:0, q:4660, q:22136, i:22136)",
           3000, kFailsWithZero, &P::GetLocalDevicePropertyWithVidPid, 0x1234, 0x5678, 7),
    text("getTurboConfigWithVidPid(i:0, q:1, q:2)", 3000, &P::GetTurboConfigWithVidPid, 1, 2),
    status("setTurboConfigWithVidPid(i:0, q:1, q:2, ay[2] 6f 6e)", 3000, kFailsWithZero,
           &P::SetTurboConfigWithVidPid, 1, 2, "on"),
    status("resetAllDeviceProperty(i:0)", 3000, kFailsWithZero, &P::ResetAllDeviceProperty),
    status("CheckCameraAuthStat()", &P::CheckCameraAuthStat),
    list("getPolicyListByVidPid(i:0)", &P::GetPolicyListByVidPid),
    status("configNewDeviceAsConnect(i:3, " + kId8 + ", i:65535, i:1, i:0)", 10000, kFails,
           &P::ConfigNewDeviceAsConnect, kDesk, kSource, 65535, 1, 0),
    status("configNewDeviceAsIgnore(" + kId8 + ", i:2, i:1, i:0)", 2000, kFails,
           &P::ConfigNewDeviceAsIgnore, kSource, 2, 1, 0),
    status("ConfigUdisks2Command(i:3, " + kId8 + ", i:65535)", 10000, kFails,
           &P::ConfigUdisks2Command, kDesk, kSource, 65535),
    list("getPrinterList(i:3)", &P::GetPrinterList, kDesk),
    list("getPrinterStatus(q:65535)", &P::GetPrinterStatus, 65535),
    list("getNetworkPrinterList()", &P::GetNetworkPrinterList),
    status("connectPrinter(i:3, q:65535)", &P::ConnectPrinter, kDesk, 65535),
    status("disconnectPrinter(i:3, q:7)", &P::DisconnectPrinter, kDesk, 7),
    status(R"(addNetworkPrinter(s:"addr", s:"name", s:""))",
           [](P& p) { return p.AddNetworkPrinter("addr", "name", ""); }),
    status(R"(AddNetworkPrinterByAddress: addNetworkPrinter(s:"addr", s:"defaultPrinter", s:""))",
           [](P& p) { return p.AddNetworkPrinter("addr"); }),
    unsent("AddNetworkPrinterWithoutName", "-1",
           [](P& p) { return p.AddNetworkPrinter("addr", "", "d"); }),
    unsent("AddNetworkPrinterWithoutAddress", "-1", [](P& p) { return p.AddNetworkPrinter(""); }),
    status(R"(deleteNetworkPrinter(s:""))", &P::DeleteNetworkPrinter, ""),
    status("RenameNetworkPrinterSendsBlocks: renameNetworkPrinter(ay[2] 61 62, ay[3] 63 64 65)",
           &P::RenameNetworkPrinter, "ab", "cde"),
    unsent("RenameNetworkPrinterToNothing", "-1", &P::RenameNetworkPrinter, "ab", ""),
    row(R"(SearchSharePrinterDevice: searchSharePrinter(s:"10.0.0.5:9100"))", 10000,
        message(int32_t{0}, int32_t{1}, std::string("addr"), std::string(200, 'n'),
                std::string("d")),
        "0 " + std::string(127, 'n') + "@addr", "-1 kept@", search),
    row(R"(SearchSharePrinterDeviceRefused: searchSharePrinter(s:"10.0.0.5:9100"))", 10000,
        message(int32_t{3}), "3 kept@", "-1 kept@", search),
    row(R"(SearchSharePrinterDeviceOfTooHighCount: searchSharePrinter(s:"10.0.0.5:9100"))", 10000,
        message(int32_t{0}, int32_t{INT32_MAX}), "0", "-1 kept@", search),
    status("StopSearchSharePrinterDevice: stopSearchSharePrinter()",
           &P::StopSearchSharePrinterDevice),
    status(R"(AddSharePrinterDevice: addSharePrinter(i:2, s:"a", s:"n", s:"d", s:"b", )"
           R"(s:"o", s:""))",
           &P::AddSharePrinterDevice,
           std::list<_SharePrinterDevice>{{"n", "a", "d"}, {"o", "b", ""}}),
    status(R"(DeleteSharePrinterDevice: deleteSharePrinter(s:"a", s:"n"))",
           &P::DeleteSharePrinterDevice, _SharePrinterDevice{"n", "a", "d"}),
    text("searchAllPrinter()", 30000, &P::SearchAllPrinter),
    text(R"(getPrinterDriverlList(s:"q"))", 30000, &P::GetPrinterDriverlList, "q"),
    status(R"(AddLocalPrinter: addPrinter(s:"a", s:"b", s:"c"))", &P::AddLocalPrinter, "a", "b",
           "c"),
    status(R"(autoAddPrinter(s:"a", s:"b", s:"c"))", 30000, kFails, &P::AutoAddPrinter, "a", "b",
           "c"),
    status(R"(deletePrinter(s:"a"))", &P::DeletePrinter, "a"),
    status(R"(changePrinterDriver(s:"a", s:"b"))", &P::ChangePrinterDriver, "a", "b"),
    status(R"(printTestPage(s:"a"))", 10000, kFails, &P::PrintTestPage, "a"),
    status("ConfigPrinterCommand(i:3, " + kId8 + ", i:7)", 10000, kFails, &P::ConfigPrinterCommand,
           kDesk, kSource, 7),
    list("getJoystickDevList(i:0)", &P::GetJoystickDevList),
    text("getJoystickMappingList(i:0, q:1, q:2)", 3000, &P::GetJoystickMappingList, 1, 2),
    status("setJoystickMapping(i:0, q:1, q:2, ay[3] 6d 61 70)", &P::SetJoystickMapping, 1, 2,
           "map"),
    status("calibrationJoystick(i:0, q:1, q:2)", &P::CalibrationJoystick, 1, 2),
    status("diagnose(i:3)", 10000, kFails, &P::Diagnose, kDesk, nullptr),
    status("diagnoseDevice(i:3, x:9)", 10000, kFails, &P::DiagnoseDevice, kDesk, 9, nullptr),
    status(R"(doPerixTest(i:0, s:"t"))", &P::DoPerixTest, "t"),
    status(R"(doPerixCmd(i:0, s:"c"))", &P::DoPerixCmd, "c"),
    text("getPerixCmdHelp(i:0)", 3000, &P::GetPerixCmdHelp),
};

}  // namespace

const std::vector<NamedWireRow>& wireTable() {
  return kTable;
}

}  // namespace zq
