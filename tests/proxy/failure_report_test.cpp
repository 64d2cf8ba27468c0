// What PerixLastFailure() tells.

#include <tuple>

#include "perix/apps/local/perixproxy/last_failure.h"
#include "tests/proxy/scripted_test.h"

namespace zq {
namespace {

using FailureReport = InstanceTest;
using Refusal = InstanceTest;

bool isLookUp(const ZQBusMessage& call) {
  return call.name() == "getVmListSize";
}

std::string toldOf(PerixFailure kind, const std::string& method, const std::string& text) {
  return std::to_string(static_cast<int>(kind)) + ' ' + method + ": " + text;
}
std::string told() {
  const PerixFailureReport report = PerixLastFailure();
  return toldOf(report.failure, report.method, report.text);
}
std::string toldOfLookUp(PerixFailure kind) {
  return toldOf(kind, "getVmListSize", "the desktop's id is unknown: why");
}
const std::string kSuccess = toldOf(PerixFailure::None, "", "");

TEST_F(FailureReport, TellsKindOfFailureAndNextSuccess) {
  script().answersLookUps = true;
  const std::pair<ZQBusFailure, PerixFailure> kinds[] = {
      {ZQBusFailure::Service, PerixFailure::Refused},
      {ZQBusFailure::TimedOut, PerixFailure::TimedOut},
      {ZQBusFailure::PeerGone, PerixFailure::Died},
      {ZQBusFailure::BusGone, PerixFailure::Died},
      {ZQBusFailure::TooLarge, PerixFailure::TooLarge},
      {ZQBusFailure::Unusable, PerixFailure::NoService},
      {ZQBusFailure::Unreadable, PerixFailure::Unreadable},
  };
  for (const auto& [failure, kind] : kinds) {
    const auto fail = [&, failure = failure](const ZQBusMessage&) {
      return ZQBusMessage::failed(failure, "why");
    };
    script().answer = fail;
    EXPECT_EQ(proxy.DoPerixTest("t"), -1);
    EXPECT_EQ(told(), toldOf(kind, "doPerixTest", "why"));
    EXPECT_EQ(proxy.DisconnectVm(""), 0);
    EXPECT_EQ(told(), kSuccess);
    EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 0U);
    EXPECT_EQ(told(), toldOfLookUp(kind));
    // The operation itself succeeds, on the wrong desktop.
    script().answer = [&](const ZQBusMessage& call) {
      return isLookUp(call) ? fail(call) : message(int32_t{0});
    };
    for (const auto& run :
         {+[](P p) { p.GetDeviceList("lab-2"); }, +[](P p) { p.StartVm("lab-2"); },
          +[](P p) { p.OnFocusChanged("lab-2", 1, 1); }}) {
      run(proxy);
      EXPECT_EQ(told(), toldOfLookUp(kind));
    }
    // A look-up that succeeds afterwards does not hide it.
    script().answer = [&](const ZQBusMessage& call) {
      std::string name;
      return call.readString(name, 0) == "lab-2" ? fail(call) : message(int32_t{0});
    };
    EXPECT_EQ(proxy.CreatePipe("lab-2", {{.vmId = "desk-3"}}), 0);
    EXPECT_EQ(told(), toldOfLookUp(kind));
    // Its own failure counts more.
    script().answer = [&](const ZQBusMessage& call) {
      return isLookUp(call) ? fail(call) : ZQBusMessage::failed(ZQBusFailure::Service, "no");
    };
    proxy.ConnectDevice("lab-2", 1);
    EXPECT_EQ(told(), toldOf(PerixFailure::Refused, "connectDevice", "no"));
    script().answer = [](const ZQBusMessage&) { return message(int32_t{0}); };
    EXPECT_EQ(proxy.DoPerixTest("t"), 0);
    EXPECT_EQ(told(), kSuccess);
  }
}

TEST_F(FailureReport, StaysWhenIdIsKnown) {
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 2U);
  EXPECT_EQ(told(), kSuccess);
  proxy.UpdateDriveToken("");
  const std::string before = told();
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 2U);
  EXPECT_EQ(proxy.GetVmIdInt(""), 0U);
  EXPECT_EQ(told(), before);
}

TEST_F(FailureReport, NamesWrongArgumentOfAnswer) {
  const std::string text = "x";
  std::list<_SharePrinterDevice> found;
  const auto status = [](P p) { p.DoPerixTest("t"); };
  const auto list = [](P p) { p.FreeDeviceList(p.GetDeviceList("")); };
  const auto desktops = [](P p) { p.GetVmList(); };
  const auto search = [&](P p) { p.SearchSharePrinterDevice("10.0.0.5", found); };
  const int32_t two = 2;
  // The number is the index of the wrong argument; it is -1 where the answer is right.
  const std::tuple<ZQBusMessage, std::function<void(P)>, int> rows[] = {
      {message(), status, 0},
      {message(text), status, 0},
      {message(int64_t{0}), [](P p) { p.CheckCameraAuthStat(); }, 0},
      {message(text), [](P p) { p.CreatePipe("", {}); }, 0},
      {message(text), [](P p) { p.OnFocusChanged("", 1, 1); }, 0},
      {message(text), [](P p) { p.SetPortChannelStatus("", 1, 1); }, 0},
      {message(int32_t{0}), [](P p) { p.GetPerixCmdHelp(); }, 0},
      {message(int32_t{0}), [](P p) { p.SearchAllPrinter(); }, 0},
      {message(text), list, 0},
      {message(two, bytes("aa")), list, 2},
      {message(two, bytes("aa"), text), list, 2},
      {message(two, bytes("aa"), bytes("")), list, -1},  // ends a list rightfully
      {message(int32_t{-1}), list, -1},
      {message(two, text, two), desktops, 3},
      {message(two, text, two, two, two), desktops, 3},
      {message(two, text, text), desktops, 2},
      {message(int32_t{0}), search, 1},
      {message(int32_t{0}, two, text, text, text), search, 5},
      {message(int32_t{0}, int32_t{1}, text, two, text), search, 3},
      {message(int32_t{3}), search, -1},
  };
  for (const auto& [reply, run, argument] : rows) {
    SCOPED_TRACE(reply.toDebugString());
    script().answer = [&, &reply = reply](const ZQBusMessage&) { return reply; };
    run(proxy);
    const std::string words =
        "argument " + std::to_string(argument) + " of the answer is missing or of another type";
    const PerixFailureReport report = PerixLastFailure();
    EXPECT_EQ(report.failure, argument < 0 ? PerixFailure::None : PerixFailure::Unreadable);
    EXPECT_EQ(report.text, argument < 0 ? "" : words);
  }
  script().answersLookUps = true;
  script().answer = [&](const ZQBusMessage&) { return message(text); };
  EXPECT_EQ(proxy.GetVmIdInt("lab-2"), 0U);
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::Unreadable);
}

TEST_F(FailureReport, TellsWhereTimeWent) {
  BlockingPoint search;
  script().answersLookUps = true;
  script().answer = [&](const ZQBusMessage& call) {
    if (call.name() == "searchAllPrinter") search.stop();
    if (isLookUp(call)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return message(int32_t{0});
  };
  PerixFailureReport report;
  holdsUp(
      search, [&] { proxy.SearchAllPrinter(); },
      [&] {
        proxy.ConnectDevice("lab-2", 1);
        report = PerixLastFailure();
      });
  EXPECT_GT(report.waiting.count(), 0);
  EXPECT_GT(report.lookUps.count(), 0);
  EXPECT_GE(report.total, report.waiting + report.lookUps);
  proxy.ReleaseService();
  script().isRegistered = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return false;
  };
  proxy.Init();
  EXPECT_EQ(PerixLastFailure().lookUps.count(), 0);
  EXPECT_GT(PerixLastFailure().total.count(), 0);
  proxy.UpdateDriveToken("");
  EXPECT_EQ(PerixLastFailure().total.count(), 0);
}

TEST_F(FailureReport, SaysHowLongCallWaitedAndCutsText) {
  const std::string longText(505, 'x');
  const std::pair<std::string, std::string> rows[] = {
      {"no answer within 500 ms",
       "no answer within 500 ms, after 320 ms of waiting for other operations"},
      {longText, longText + ", afte"},
  };
  for (const auto& [words, explained] : rows) {
    LastFailure last;
    last.waiting = std::chrono::milliseconds(320);
    last.set(PerixFailure::TimedOut, "m", words);
    last.explainTimeOut();
    EXPECT_EQ(last.text, explained);
  }
  LastFailure last;
  last.set(PerixFailure::Refused, "m", std::string(510, 'x') + "\u00e9tc");
  EXPECT_EQ(last.text, std::string(510, 'x')) << "no part of a character";
}

TEST_F(Refusal, IsLoggedWithResultAndSubject) {
  script().answer = [](const ZQBusMessage&) { return message(int32_t{7}); };
  const std::string forbidden = ": result 7, forbidden by the device's policy; desktop ";
  std::list<_SharePrinterDevice> printers;
  const std::pair<std::function<void(P)>, std::string> rows[] = {
      {[](P p) { p.ConnectDevice("lab-2", 8); }, "connectDevice" + forbidden + "'lab-2', device 8"},
      {[](P p) { p.DiagnoseDevice("lab-2", 1ULL << 63, nullptr); },
       "diagnoseDevice" + forbidden + "'lab-2', source id 9223372036854775808"},
      {[](P p) { p.ConfigNewDeviceAsIgnore(5, 1, 0, 0); },
       "configNewDeviceAsIgnore" + forbidden + "'', source id 5"},
      {[](P p) { p.ConnectPrinter("lab-2", 3); },
       "connectPrinter" + forbidden + "'lab-2', printer 3"},
      {[](P p) { p.CreatePipe("lab-2", {}); }, "createPipe" + forbidden + "'lab-2'"},
      {[](P p) { p.OnFocusChanged("lab-2", 1, 1); }, "onFocusChanged" + forbidden + "'lab-2'"},
      {[](P p) { p.ResetAllDeviceProperty(); }, "resetAllDeviceProperty" + forbidden + "''"},
      {[&](P p) { p.SearchSharePrinterDevice("10.0.0.5", printers); },
       "searchSharePrinter" + forbidden + "''"},
      // Numbers that are not results.
      {[](P p) { p.GetAutoConnect(3); }, ""},
      {[](P p) { p.GetDevicePropertyWithVidPid(1, 2, 3); }, ""},
      {[](P p) { p.CheckCameraAuthStat(); }, ""},
      {[](P p) { p.DoPerixTest("t"); }, ""},
  };
  for (const auto& [run, text] : rows) {
    takeLog();
    run(proxy);
    std::string refusals;
    for (const LogLine& line : takeLog()) {
      if (line.tag == "PERIX_REFUSED") refusals += line.text;
    }
    EXPECT_EQ(refusals, text.empty() ? "" : "\"Refused:\" \"" + text + '"');
  }
}

}  // namespace
}  // namespace zq
