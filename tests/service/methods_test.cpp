// The methods as calls reach them, without a bus.
#include "service/bus/methods.h"

#include "service/scenario/state.h"
#include "tests/service/test_world.h"

namespace zq::devservice {
namespace {

class TheMethods : public OfficeTest {
 protected:
  /// The answer of a call, as far as it is there yet.
  ZQBusMessage call(const char* method, const std::function<void(ZQBusMessage&)>& append) {
    ZQBusMessage message(ZQBusMessageType::MethodCall, method);
    append(message);
    ZQBusMessage result;
    table.handle(message, [&](const Answer& answer) {
      EXPECT_EQ(answer.errorText(), "");
      result = answer.arguments();
    });
    return result;
  }
  Json state() const { return stateAsJson(world); }

  const MethodTable table{perixMethods(world)};
};

std::string pipeBlock(uint32_t desktop, const std::string& label) {
  std::string block(268, '\0');
  std::memcpy(block.data(), &desktop, sizeof desktop);
  block.replace(12, label.size(), label);
  return block;
}

TEST_F(TheMethods, AreTheRowsOfTheSharedTable) {
  for (const ServiceMethod& method : kServiceMethods) {
    EXPECT_NE(table.find(method.name), nullptr) << method.name;
  }
  EXPECT_EQ(table.description().size(), kServiceMethods.size());
}

TEST_F(TheMethods, ListDevicesWithTheirCountFirst) {
  const auto reply = call("getDeviceList", [](ZQBusMessage& m) { m.appendInt32(kOffice); });
  EXPECT_EQ(reply.readInt32(0), 8);
  ASSERT_EQ(reply.argCount(), 9U);
  const auto& last = std::get<ZQBusBytes>(reply.arguments()[8]);
  EXPECT_STREQ(recordOf<CommonDevice>(last).name, "Firmware stick");
  EXPECT_EQ(recordOf<CommonDevice>(last).localPolicy, static_cast<uint16_t>(DevicePolicy::Forbid));
}

TEST_F(TheMethods, CreateAllPipesOrNone) {
  const auto change = [this](const char* method, int count,
                             const std::vector<std::string>& blocks) {
    return call(method,
                [&](ZQBusMessage& m) {
                  m.appendInt32(kOffice);
                  m.appendInt32(count);
                  for (const auto& block : blocks) m.appendBytes(block.data(), block.size());
                })
        .readInt32(0);
  };
  const auto a = pipeBlock(kOffice, "a");
  const auto b = pipeBlock(kOffice, std::string(127, 'b'));
  EXPECT_EQ(change("createPipe", 2, {a, pipeBlock(kNowhere, "x")}), 1);
  EXPECT_EQ(change("createPipe", 2, {a}), 8);
  EXPECT_EQ(change("createPipe", 1, {a.substr(1)}), 8);
  EXPECT_EQ(state()["desktops"][0]["pipes"].size(), 0U);
  EXPECT_EQ(change("createPipe", 2, {a, b}), 0);
  EXPECT_EQ(change("createPipe", 2, {pipeBlock(kOffice, "c"), b}), 9);
  EXPECT_EQ(state()["desktops"][0]["pipes"].size(), 2U);
  EXPECT_EQ(change("destroyPipe", 1, {a}), 0);
  EXPECT_EQ(change("destroyPipe", 1, {a}), 14);
  EXPECT_EQ(state()["desktops"][0]["pipes"][0]["label1"], std::string(127, 'b'));
}

TEST_F(TheMethods, KeepOfTheTokenItsLengthAlone) {
  call("updateDriveToken", [](ZQBusMessage& m) { m.appendBytes("geheim", 6); });
  EXPECT_EQ(state()["session"]["tokenLength"], 6);
  EXPECT_EQ(asText(state()).find("geheim"), std::string::npos);
  EXPECT_TRUE(table.find("updateDriveToken")->form.secret);
}

TEST_F(TheMethods, AnswerThePropertyThatWasSetElseTheMachines) {
  const auto get = [this](const char* method) {
    return call(method,
                [](ZQBusMessage& m) {
                  m.appendInt32(0);
                  m.appendUInt16(0x1d6b);
                  m.appendUInt16(0x0102);
                  m.appendInt32(0x0102);
                })
        .readInt32(0);
  };
  EXPECT_EQ(get("getDevicePropertyWithVidPid"), 30);
  call("setDevicePropertyWithVidPid", [](ZQBusMessage& m) {
    m.appendInt32(0);
    m.appendUInt16(0x1d6b);
    m.appendUInt16(0x0102);
    m.appendInt32(7);
    m.appendInt32(-2);
  });
  EXPECT_EQ(get("getDevicePropertyWithVidPid"), -2);
  EXPECT_EQ(get("getLocalDevicePropertyWithVidPid"), 30);
  call("resetAllDeviceProperty", [](ZQBusMessage& m) { m.appendInt32(0); });
  EXPECT_EQ(get("getDevicePropertyWithVidPid"), 30);
}

TEST_F(TheMethods, AddSharedPrintersAllOrNone) {
  const auto add = [this](int count, const std::vector<std::string>& names) {
    return call("addSharePrinter",
                [&](ZQBusMessage& m) {
                  m.appendInt32(count);
                  for (const auto& name : names) {
                    m.appendString("10.0.0.5");
                    m.appendString(name);
                    m.appendString("");
                  }
                })
        .readInt32(0);
  };
  EXPECT_EQ(add(1, {"a", "b"}), 8);
  EXPECT_EQ(add(2, {"a", ""}), 8);
  EXPECT_EQ(add(2, {"a", "b"}), 0);
  EXPECT_EQ(add(2, {"c", "a"}), 9);
  EXPECT_EQ(state()["printers"].size(), 5U);
}

TEST_F(TheMethods, AnswerASearchWithAddressNameAndDescription) {
  ZQBusMessage message(ZQBusMessageType::MethodCall, "searchSharePrinter");
  message.appendString("192.168.7.20");
  ZQBusMessage found;
  table.handle(message, [&](const Answer& answer) { found = answer.arguments(); });
  EXPECT_EQ(found.argCount(), 0U);
  timer.pass(kLong);
  std::string text;
  EXPECT_EQ(found.readInt32(0), 0);
  EXPECT_EQ(found.readInt32(1), 2);
  EXPECT_EQ(found.readString(text, 5), "192.168.7.20");
  EXPECT_EQ(found.readString(text, 6), "Archive");
  EXPECT_EQ(found.readString(text, 7), "A3");
}

TEST_F(TheMethods, RunCommandsAndTests) {
  const auto run = [this](const char* method, const char* name) {
    return call(method,
                [&](ZQBusMessage& m) {
                  m.appendInt32(0);
                  m.appendString(name);
                })
        .readInt32(0);
  };
  EXPECT_EQ(run("doPerixTest", "loopback"), 0);
  EXPECT_EQ(run("doPerixTest", "broken"), 5);
  EXPECT_EQ(run("doPerixTest", "none"), 18);
  EXPECT_EQ(run("doPerixCmd", "none"), 19);
  EXPECT_EQ(run("doPerixCmd", "fail"), 0);
  timer.pass(kLong);
  ASSERT_EQ(events.events.size(), 1U);
  const auto response = recordOf<CmdResponse>(events.events[0].payload);
  EXPECT_EQ(response.result, 7);
  EXPECT_STREQ(response.text, "as asked");
}

}  // namespace
}  // namespace zq::devservice
