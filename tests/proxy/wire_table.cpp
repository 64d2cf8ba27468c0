#include "wire_table.h"

#include <cstring>

#include "tests/support/messages.h"

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

ZQBusMessage status(int32_t value) {
  return message(value);
}
ZQBusMessage text(const std::string& answer) {
  return message(answer);
}

ZQBusMessage twoRecords() {
  return message(int32_t{2}, bytes("aa"), bytes("bb"));
}

VmInfo session(uint32_t role) {
  return {kDesk, 1, 2, 0x80000003, 4, 5, 6, role};
}

std::list<_CHANNEL_HANDLE> channels() {
  _CHANNEL_HANDLE handle{"other-9", 10, 11, "one", {}};
  std::memset(handle.label2, 'x', sizeof handle.label2 - 1);
  return {handle};
}

CommonDevice device() {
  CommonDevice made{};
  made.devNumber = 7;
  made.localPolicy = 8;
  std::strcpy(made.name, "cam");
  return made;
}

_SharePrinterDevice shared(const char* name, const char* addr, const char* desc) {
  _SharePrinterDevice made{};
  std::strcpy(made.name, name);
  std::strcpy(made.addr, addr);
  std::strcpy(made.desc, desc);
  return made;
}

std::string search(PerixProxy& proxy) {
  std::list<_SharePrinterDevice> found = {shared("kept", "", "")};
  std::string shown = show(proxy.SearchSharePrinterDevice("10.0.0.5:9100", found));
  for (const auto& printer : found) shown += ' ' + std::string(printer.name) + '@' + printer.addr;
  return shown;
}

std::string quality(PerixProxy& proxy, unsigned int type, bool withInfo) {
  uint32_t value = 7;
  proxy.SetRtcQosInfo(kDesk, type, withInfo ? &value : nullptr);
  return "sent";
}

}  // namespace

const std::vector<NamedWireRow>& wireTable() {
  using P = PerixProxy&;
  static const std::string id8 = "ay[8] 08 07 06 05 04 03 02 01";
  static const std::vector<NamedWireRow> table = {
      {"ResetService",
       {"resetService()", 3000, status(5), "5", "-1", [](P p) { return show(p.ResetService()); }}},
      // Desktops
      {"ConnectVm",
       {"connectVm(i:3, i:1, i:2, i:-2147483645)", 2000, status(5), "5", "-1",
        [](P p) { return show(p.ConnectVm(session(0))); }}},
      {"ConnectVmAsCollaborator",
       {"", 0, {}, "-1", "-1", [](P p) { return show(p.ConnectVm(session(1))); }}},
      {"DisconnectVm",
       {"disconnectVm(i:3)", kNoWait, status(5), "0", "-1",
        [](P p) { return show(p.DisconnectVm(kDesk)); }}},
      {"StartVm",
       {"startManager(i:3)", kNoWait, status(5), "0", "-1",
        [](P p) { return show(p.StartVm(kDesk)); }}},
      {"GetVmList",
       {"getVmList(i:0)", 3000, message(int32_t{2}, std::string("a"), int32_t{1}, std::string("b"), int32_t{2}),
        "a=1 b=2 ", "", [](P p) { return show(p.GetVmList()); }}},
      {"GetVmListCutShort",
       {"getVmList(i:0)", 3000, message(int32_t{9}, std::string("a"), int32_t{1}, std::string("b")),
        "a=1 ", "", [](P p) { return show(p.GetVmList()); }}},
      {"GetVmListOfNegativeCount",
       {"getVmList(i:0)", 3000, message(int32_t{-1}), "", "", [](P p) { return show(p.GetVmList()); }}},
      {"OnFocusChanged",
       {"onFocusChanged(i:3, i:1, x:-1)", 500, status(5), "5", "-1",
        [](P p) { return show(p.OnFocusChanged(kDesk, UINT64_MAX, 1)); }}},
      // Channels
      {"CreatePipe",
       {"createPipe(i:3, i:1, ay[268] 09 00 00 00 0a 00 00 00 0b 00 00 00 6f 6e 65 00...)", 3000,
        status(5), "5", "-1", [](P p) { return show(p.CreatePipe(kDesk, channels())); }}},
      {"DestroyPipe",
       {"destroyPipe(i:3, i:0)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DestroyPipe(kDesk, {})); }}},
      {"SetPortChannelStatus",
       {"setPortChannelStatus(i:3, i:-1, i:-2)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.SetPortChannelStatus(kDesk, 0xFFFFFFFF, -2)); }}},
      // Token and quality
      {"UpdateDriveToken",
       {"updateDriveToken(ay[3] 61 00 62)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.UpdateDriveToken(std::string("a\0b", 3))); }}},
      {"UpdateDriveTokenEmpty",
       {"", 0, {}, "-1", "-1", [](P p) { return show(p.UpdateDriveToken("")); }}},
      {"SetBwInfo",
       {"setBwInfo(i:3, x:1, x:-1)", kNoWait, status(5), "sent", "sent",
        [](P p) { return p.SetBwInfo(kDesk, 1, UINT64_MAX), "sent"; }}},
      {"SetRtcQosInfoOfBandwidth",
       {"setRtcQosInfo(i:3, x:1, x:7)", kNoWait, status(5), "sent", "sent",
        [](P p) { return quality(p, 1, true); }}},
      {"SetRtcQosInfoOfBandwidthWithoutInfo",
       {"setRtcQosInfo(i:3, x:1)", kNoWait, status(5), "sent", "sent",
        [](P p) { return quality(p, 1, false); }}},
      {"SetRtcQosInfoOfAnotherType",
       {"setRtcQosInfo(i:3, x:4294967295)", kNoWait, status(5), "sent", "sent",
        [](P p) { return quality(p, UINT32_MAX, true); }}},
      // Devices
      {"GetDeviceList",
       {"getDeviceList(i:3)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetDeviceList(kDesk)); }}},
      {"GetDeviceListOfUnknownDesktop",
       {"getDeviceList(i:0)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetDeviceList("nowhere")); }}},
      {"GetDeviceListCutByEmptyRecord",
       {"getDeviceList(i:3)", 3000, message(int32_t{3}, bytes("aa"), bytes(""), bytes("cc")), "<aa>",
        "", [](P p) { return show(p.GetDeviceList(kDesk)); }}},
      {"GetDeviceListOfTooHighCount",
       {"getDeviceList(i:3)", 3000, message(int32_t{INT32_MAX}, bytes("aa"), std::string("bb")), "<aa>",
        "", [](P p) { return show(p.GetDeviceList(kDesk)); }}},
      {"GetDeviceListOfWrongTypes",
       {"getDeviceList(i:3)", 3000, message(std::string("2"), bytes("aa")), "", "",
        [](P p) { return show(p.GetDeviceList(kDesk)); }}},
      {"GetDeviceStatus",
       {"getDeviceStatus(q:65535)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetDeviceStatus(65535)); }}},
      {"GetLocalDeviceList",
       {"getDeviceList(i:0)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetLocalDeviceList()); }}},
      {"ConnectDevice",
       {"connectDevice(i:3, q:7)", 3000, status(-5), "-5", "-1",
        [](P p) { return show(p.ConnectDevice(kDesk, 7)); }}},
      {"DisconnectDevice",
       {"disconnectDevice(i:3, q:7)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DisconnectDevice(kDesk, 7)); }}},
      {"ConnectDeviceBySrcId",
       {"connectDeviceBySrcId(i:3, x:-1)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.ConnectDeviceBySrcId(kDesk, UINT64_MAX)); }}},
      {"DisconnectDeviceBySrcId",
       {"disconnectDeviceBySrcId(i:3, x:1)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DisconnectDeviceBySrcId(kDesk, 1)); }}},
      {"RedirectDevice",
       {"redirectDevice(i:3, q:1, q:2)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.RedirectDevice(kDesk, 1, 2)); }}},
      {"SetAutoConnectSendsSixteenBits",
       {"setAutoConnect(i:0, q:4, q:1)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.SetAutoConnect(4, 0x10001)); }}},
      {"GetAutoConnect",
       {"getAutoConnect(i:0, q:4)", 3000, status(1), "1", "0",
        [](P p) { return show(p.GetAutoConnect(4)); }}},
      {"AddNetworkDevice",
       {"addNetworkDevice(i:-3, ay[0])", 3000, status(5), "5", "-1",
        [](P p) { std::string s; return show(p.AddNetworkDevice(-3, s)); }}},
      {"DeleteNetworkDevice",
       {"deleteNetworkDevice(ay[1] 61, ay[2] 62 63)", 3000, status(5), "5", "-1",
        [](P p) { std::string a = "a", b = "bc"; return show(p.DeleteNetworkDevice(a, b)); }}},
      {"SetUsbredirStatus",
       {"setUsbredirStatus(i:3, q:9, ay[8] 01 02 03 04 05 06 07 08)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.SetUsbredirStatus(kDesk, kUsb, 9)); }}},
      {"ConnectUsbredir",
       {"", 0, {}, "0", "0", [](P p) { return show(p.ConnectUsbredir(kDesk, kUsb)); }}},
      {"DisconnectUsbredir",
       {"", 0, {}, "0", "0", [](P p) { return show(p.DisconnectUsbredir(kDesk, kUsb)); }}},
      // Policies and properties
      {"SetDeviceLocalPolicy",
       {"setLocalPolicy(q:7, q:8, ay[3] 63 61 6d, ay[0])", 3000, status(5), "5", "-1",
        [](P p) { CommonDevice d = device(); return show(p.SetDeviceLocalPolicy(&d)); }}},
      {"SetDevicePropertyWithVidPid",
       {"setDevicePropertyWithVidPid(i:0, q:4660, q:22136, i:7, i:-2)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.SetDevicePropertyWithVidPid(0x1234, 0x5678, 7, -2)); }}},
      {"GetDevicePropertyWithVidPidSendsThePidTwice",
       {"getDevicePropertyWithVidPid(i:0, q:4660, q:65535, i:65535)", 3000, status(5), "5", "0",
        [](P p) { return show(p.GetDevicePropertyWithVidPid(0x1234, 0xFFFF, 7)); }}},
      {"GetLocalDevicePropertyWithVidPidSendsThePidTwice",
       {"getLocalDevicePropertyWithVidPid(i:0, q:4660, q:22136, i:22136)", 3000, status(5), "5", "0",
        [](P p) { return show(p.GetLocalDevicePropertyWithVidPid(0x1234, 0x5678, 7)); }}},
      {"GetTurboConfigWithVidPid",
       {"getTurboConfigWithVidPid(i:0, q:1, q:2)", 3000, text("on"), "\"on\"", "\"\"",
        [](P p) { return show(p.GetTurboConfigWithVidPid(1, 2)); }}},
      {"SetTurboConfigWithVidPid",
       {"setTurboConfigWithVidPid(i:0, q:1, q:2, ay[2] 6f 6e)", 3000, status(5), "5", "0",
        [](P p) { return show(p.SetTurboConfigWithVidPid(1, 2, "on")); }}},
      {"ResetAllDeviceProperty",
       {"resetAllDeviceProperty(i:0)", 3000, status(5), "5", "0",
        [](P p) { return show(p.ResetAllDeviceProperty()); }}},
      {"CheckCameraAuthStat",
       {"CheckCameraAuthStat()", 3000, status(5), "5", "-1",
        [](P p) { return show(p.CheckCameraAuthStat()); }}},
      {"GetPolicyListByVidPid",
       {"getPolicyListByVidPid(i:0)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetPolicyListByVidPid()); }}},
      // New devices
      {"ConfigNewDeviceAsConnect",
       {"configNewDeviceAsConnect(i:3, " + id8 + ", i:65535, i:1, i:0)", 10000, status(5), "5", "-1",
        [](P p) { return show(p.ConfigNewDeviceAsConnect(kDesk, kSource, 65535, 1, 0)); }}},
      {"ConfigNewDeviceAsIgnore",
       {"configNewDeviceAsIgnore(" + id8 + ", i:2, i:1, i:0)", 2000, status(5), "5", "-1",
        [](P p) { return show(p.ConfigNewDeviceAsIgnore(kSource, 2, 1, 0)); }}},
      {"ConfigUdisks2Command",
       {"ConfigUdisks2Command(i:3, " + id8 + ", i:65535)", 10000, status(5), "5", "-1",
        [](P p) { return show(p.ConfigUdisks2Command(kDesk, kSource, 65535)); }}},
      // Printers
      {"GetPrinterList",
       {"getPrinterList(i:3)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetPrinterList(kDesk)); }}},
      {"GetPrinterStatus",
       {"getPrinterStatus(q:65535)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetPrinterStatus(65535)); }}},
      {"GetNetworkPrinterList",
       {"getNetworkPrinterList()", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetNetworkPrinterList()); }}},
      {"ConnectPrinter",
       {"connectPrinter(i:3, q:65535)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.ConnectPrinter(kDesk, 65535)); }}},
      {"DisconnectPrinter",
       {"disconnectPrinter(i:3, q:7)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DisconnectPrinter(kDesk, 7)); }}},
      {"AddNetworkPrinter",
       {"addNetworkPrinter(s:\"addr\", s:\"name\", s:\"\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.AddNetworkPrinter("addr", "name", "")); }}},
      {"AddNetworkPrinterByAddress",
       {"addNetworkPrinter(s:\"addr\", s:\"defaultPrinter\", s:\"\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.AddNetworkPrinter("addr")); }}},
      {"AddNetworkPrinterWithoutName",
       {"", 0, {}, "-1", "-1", [](P p) { return show(p.AddNetworkPrinter("addr", "", "d")); }}},
      {"AddNetworkPrinterWithoutAddress",
       {"", 0, {}, "-1", "-1", [](P p) { return show(p.AddNetworkPrinter("")); }}},
      {"DeleteNetworkPrinter",
       {"deleteNetworkPrinter(s:\"\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DeleteNetworkPrinter("")); }}},
      {"RenameNetworkPrinterSendsBlocks",
       {"renameNetworkPrinter(ay[2] 61 62, ay[3] 63 64 65)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.RenameNetworkPrinter("ab", "cde")); }}},
      {"RenameNetworkPrinterToNothing",
       {"", 0, {}, "-1", "-1", [](P p) { return show(p.RenameNetworkPrinter("ab", "")); }}},
      {"SearchSharePrinterDevice",
       {"searchSharePrinter(s:\"10.0.0.5:9100\")", 10000,
        message(int32_t{0}, int32_t{1}, std::string("addr"), std::string(200, 'n'), std::string("d")),
        "0 " + std::string(127, 'n') + "@addr", "-1 kept@", search}},
      {"SearchSharePrinterDeviceRefused",
       {"searchSharePrinter(s:\"10.0.0.5:9100\")", 10000, status(3), "3 kept@", "-1 kept@", search}},
      {"SearchSharePrinterDeviceOfTooHighCount",
       {"searchSharePrinter(s:\"10.0.0.5:9100\")", 10000, message(int32_t{0}, int32_t{INT32_MAX}), "0",
        "-1 kept@", search}},
      {"StopSearchSharePrinterDevice",
       {"stopSearchSharePrinter()", 3000, status(5), "5", "-1",
        [](P p) { return show(p.StopSearchSharePrinterDevice()); }}},
      {"AddSharePrinterDevice",
       {"addSharePrinter(i:2, s:\"a\", s:\"n\", s:\"d\", s:\"b\", s:\"o\", s:\"\")", 3000, status(5), "5",
        "-1",
        [](P p) {
          std::list<_SharePrinterDevice> all = {shared("n", "a", "d"), shared("o", "b", "")};
          return show(p.AddSharePrinterDevice(all));
        }}},
      {"DeleteSharePrinterDevice",
       {"deleteSharePrinter(s:\"a\", s:\"n\")", 3000, status(5), "5", "-1",
        [](P p) { auto one = shared("n", "a", "d"); return show(p.DeleteSharePrinterDevice(one)); }}},
      {"SearchAllPrinter",
       {"searchAllPrinter()", 30000, text("all"), "\"all\"", "\"\"",
        [](P p) { return show(p.SearchAllPrinter()); }}},
      {"GetPrinterDriverlList",
       {"getPrinterDriverlList(s:\"q\")", 30000, text("all"), "\"all\"", "\"\"",
        [](P p) { return show(p.GetPrinterDriverlList("q")); }}},
      {"AddLocalPrinter",
       {"addPrinter(s:\"a\", s:\"b\", s:\"c\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.AddLocalPrinter("a", "b", "c")); }}},
      {"AutoAddPrinter",
       {"autoAddPrinter(s:\"a\", s:\"b\", s:\"c\")", 30000, status(5), "5", "-1",
        [](P p) { return show(p.AutoAddPrinter("a", "b", "c")); }}},
      {"DeletePrinter",
       {"deletePrinter(s:\"a\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DeletePrinter("a")); }}},
      {"ChangePrinterDriver",
       {"changePrinterDriver(s:\"a\", s:\"b\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.ChangePrinterDriver("a", "b")); }}},
      {"PrintTestPage",
       {"printTestPage(s:\"a\")", 10000, status(5), "5", "-1",
        [](P p) { return show(p.PrintTestPage("a")); }}},
      {"ConfigPrinterCommand",
       {"ConfigPrinterCommand(i:3, " + id8 + ", i:7)", 10000, status(5), "5", "-1",
        [](P p) { return show(p.ConfigPrinterCommand(kDesk, kSource, 7)); }}},
      // Joysticks
      {"GetJoystickDevList",
       {"getJoystickDevList(i:0)", 3000, twoRecords(), "<aa><bb>", "",
        [](P p) { return show(p.GetJoystickDevList()); }}},
      {"GetJoystickMappingList",
       {"getJoystickMappingList(i:0, q:1, q:2)", 3000, text("map"), "\"map\"", "\"\"",
        [](P p) { return show(p.GetJoystickMappingList(1, 2)); }}},
      {"SetJoystickMapping",
       {"setJoystickMapping(i:0, q:1, q:2, ay[3] 6d 61 70)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.SetJoystickMapping(1, 2, "map")); }}},
      {"CalibrationJoystick",
       {"calibrationJoystick(i:0, q:1, q:2)", 3000, status(5), "5", "-1",
        [](P p) { return show(p.CalibrationJoystick(1, 2)); }}},
      // Commands and diagnosis
      {"Diagnose",
       {"diagnose(i:3)", 10000, status(5), "5", "-1",
        [](P p) { return show(p.Diagnose(kDesk, nullptr)); }}},
      {"DiagnoseDevice",
       {"diagnoseDevice(i:3, x:9)", 10000, status(5), "5", "-1",
        [](P p) { return show(p.DiagnoseDevice(kDesk, 9, nullptr)); }}},
      {"DoPerixTest",
       {"doPerixTest(i:0, s:\"t\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DoPerixTest("t")); }}},
      {"DoPerixCmd",
       {"doPerixCmd(i:0, s:\"c\")", 3000, status(5), "5", "-1",
        [](P p) { return show(p.DoPerixCmd("c")); }}},
      {"GetPerixCmdHelp",
       {"getPerixCmdHelp(i:0)", 3000, text("help"), "\"help\"", "\"\"",
        [](P p) { return show(p.GetPerixCmdHelp()); }}},
  };
  return table;
}

}  // namespace zq
