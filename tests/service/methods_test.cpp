// The methods as calls reach them, without a bus.
#include "service/bus/methods.h"

#include "service/scenario/state.h"
#include "tests/service/test_world.h"
#include "tests/support/messages.h"

namespace zq::devservice {
namespace {

using Arguments = std::vector<ZQBusArgument>;

class ServiceMethods : public OfficeWorld {
 protected:
  /// The number that the call answers; `answer` holds the whole answer once it is there.
  int32_t call(const char* method, const Arguments& arguments) {
    ZQBusMessage call(ZQBusMessageType::MethodCall, method);
    for (const auto& argument : arguments) call.append(argument);
    answer = {};
    table.handle(call, [this](const Answer& given) {
      EXPECT_EQ(given.errorText(), "");
      answer = given.arguments();
    });
    return answer.readInt32(0);
  }
  Json state() const { return stateAsJson(world); }

  static constexpr int32_t kDesktop = kOffice;
  const MethodTable table{perixMethods(world)};
  ZQBusMessage answer;
};

std::string pipeBlock(uint32_t desktop, const std::string& label) {
  std::string block(268, '\0');
  std::memcpy(block.data(), &desktop, sizeof desktop);
  return block.replace(12, label.size(), label);
}

TEST_F(ServiceMethods, AreRowsOfSharedTable) {
  for (const ServiceMethod& method : kServiceMethods) {
    EXPECT_NE(table.find(method.name), nullptr) << method.name;
  }
  EXPECT_EQ(table.description().size(), kServiceMethods.size());
}

TEST_F(ServiceMethods, ListDevicesBehindTheirCount) {
  EXPECT_EQ(call("getDeviceList", {kDesktop}), 8);
  ASSERT_EQ(answer.argCount(), 9U);
  const auto last = recordOf<CommonDevice>(*answer.bytesAt(8));
  EXPECT_STREQ(last.name, "Firmware stick");
  EXPECT_EQ(last.localPolicy, static_cast<uint16_t>(DevicePolicy::Forbid));
}

TEST_F(ServiceMethods, CreateAllPipesOrNone) {
  const auto a = bytes(pipeBlock(kOffice, "a"));
  const auto b = bytes(pipeBlock(kOffice, std::string(127, 'b')));
  EXPECT_EQ(call("createPipe", {kDesktop, 2, a, bytes(pipeBlock(kNowhere, "x"))}), 1);
  EXPECT_EQ(call("createPipe", {kDesktop, 2, a}), 8);
  EXPECT_EQ(call("createPipe", {kDesktop, 1, bytes(pipeBlock(kOffice, "a").substr(1))}), 8);
  EXPECT_EQ(state()["desktops"][0]["pipes"].size(), 0U);
  EXPECT_EQ(call("createPipe", {kDesktop, 2, a, b}), 0);
  EXPECT_EQ(call("createPipe", {kDesktop, 2, bytes(pipeBlock(kOffice, "c")), b}), 9);
  EXPECT_EQ(state()["desktops"][0]["pipes"].size(), 2U);
  EXPECT_EQ(call("destroyPipe", {kDesktop, 1, a}), 0);
  EXPECT_EQ(call("destroyPipe", {kDesktop, 1, a}), 14);
  EXPECT_EQ(state()["desktops"][0]["pipes"][0]["label1"], std::string(127, 'b'));
}

TEST_F(ServiceMethods, KeepLengthOfTokenAlone) {
  call("updateDriveToken", {bytes("geheim")});
  EXPECT_EQ(state()["session"]["tokenLength"], 6);
  EXPECT_EQ(asText(state()).find("geheim"), std::string::npos);
  EXPECT_TRUE(table.find("updateDriveToken")->form.secret);
}

TEST_F(ServiceMethods, AnswerSetPropertyElseMachines) {
  constexpr uint16_t kVid = 0x1d6b;
  constexpr uint16_t kPid = 0x0102;
  const Arguments property = {0, kVid, kPid, 0x0102};
  EXPECT_EQ(call("getDevicePropertyWithVidPid", property), 30);
  call("setDevicePropertyWithVidPid", {0, kVid, kPid, 7, -2});
  EXPECT_EQ(call("getDevicePropertyWithVidPid", property), -2);
  EXPECT_EQ(call("getLocalDevicePropertyWithVidPid", property), 30);
  call("resetAllDeviceProperty", {0});
  EXPECT_EQ(call("getDevicePropertyWithVidPid", property), 30);
}

TEST_F(ServiceMethods, AddAllSharedPrintersOrNone) {
  const std::string host = "10.0.0.5";
  EXPECT_EQ(call("addSharePrinter", {1, host, "a", "", host, "b", ""}), 8);
  EXPECT_EQ(call("addSharePrinter", {2, host, "a", "", host, "", ""}), 8);
  EXPECT_EQ(call("addSharePrinter", {2, host, "a", "", host, "b", ""}), 0);
  EXPECT_EQ(call("addSharePrinter", {2, host, "c", "", host, "a", ""}), 9);
  EXPECT_EQ(state()["printers"].size(), 5U);
}

TEST_F(ServiceMethods, AnswerSearchWithAddressNameAndDescription) {
  call("searchSharePrinter", {"192.168.7.20"});
  EXPECT_EQ(answer.argCount(), 0U);
  timer.pass(kLong);
  EXPECT_EQ(answer.readInt32(0), 0);
  EXPECT_EQ(answer.readInt32(1), 2);
  std::string text;
  EXPECT_EQ(answer.readString(text, 5), "192.168.7.20");
  EXPECT_EQ(answer.readString(text, 6), "Archive");
  EXPECT_EQ(answer.readString(text, 7), "A3");
}

TEST_F(ServiceMethods, RunCommandsAndTests) {
  EXPECT_EQ(call("doPerixTest", {0, "loopback"}), 0);
  EXPECT_EQ(call("doPerixTest", {0, "broken"}), 5);
  EXPECT_EQ(call("doPerixTest", {0, "none"}), 18);
  EXPECT_EQ(call("doPerixCmd", {0, "none"}), 19);
  EXPECT_EQ(call("doPerixCmd", {0, "fail"}), 0);
  timer.pass(kLong);
  ASSERT_EQ(events.events.size(), 1U);
  const auto response = recordOf<CmdResponse>(events.events[0].payload);
  EXPECT_EQ(response.result, 7);
  EXPECT_STREQ(response.text, "as asked");
}

}  // namespace
}  // namespace zq::devservice
