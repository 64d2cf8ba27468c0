// Calls of the service without a bus: the table of methods, the log of calls, and faults.
#include <gtest/gtest.h>

#include <map>

#include "service/bus/call_log.h"
#include "service/bus/faults.h"
#include "service/bus/method_table.h"
#include "service/bus/methods.h"
#include "service/scenario/state.h"
#include "tests/service/test_world.h"
#include "tests/support/messages.h"

namespace zq::devservice {
namespace {

Method method(const char* name, const char* in) {
  return {{name, in, "result:i"}, [](const Call&) { return Result::Done; }};
}

/// A call with arguments of the types in `signatures`: q, i, x, s, or a for bytes.
ZQBusMessage callOf(const std::string& name, const std::string& signatures) {
  const std::map<char, ZQBusArgument> arguments = {{'q', uint16_t{1}},
                                                   {'i', int32_t{1}},
                                                   {'x', int64_t{1}},
                                                   {'s', "text"},
                                                   {'a', bytes("bytes")}};
  ZQBusMessage call(ZQBusMessageType::MethodCall, name);
  for (const char signature : signatures) call.append(arguments.at(signature));
  return call;
}

TEST(MethodTable, ChecksArgumentsAndDescribesMethods) {
  const MethodTable table({
      method("none", ""),
      method("two", "desktop:i device:q"),
      method("maybe", "desktop:i ?value:x"),
      method("group", "count:i *address:s name:ay"),
  });
  const char* const cases[][3] = {
      {"none", "", ""},
      {"none", "i", "none takes (), not 1 arguments"},
      {"two", "iq", ""},
      {"two", "i", "two takes (desktop:i device:q), not 1 arguments"},
      {"two", "iqq", "two takes (desktop:i device:q), not 3 arguments"},
      {"two", "qi", "two: argument 0, desktop, is i, not q"},
      {"maybe", "i", ""},
      {"maybe", "ix", ""},
      {"maybe", "ixx", "maybe takes (desktop:i ?value:x), not 3 arguments"},
      {"group", "i", ""},
      {"group", "isasa", ""},
      {"group", "isas", "group takes (count:i *address:s name:ay), not 4 arguments"},
      {"group", "isass", "group: argument 4, name, is ay, not s"},
  };
  for (const auto& [name, signatures, expected] : cases) {
    std::string error;
    table.handle(callOf(name, signatures),
                 [&](const Answer& answer) { error = answer.errorText(); });
    EXPECT_EQ(error, expected) << name << ' ' << signatures;
  }
  const auto description = table.description();
  ASSERT_EQ(description.size(), 4U);
  ASSERT_EQ(description[0].in.size(), 3U);
  EXPECT_EQ(description[0].in[1].name, "address");
  EXPECT_EQ(description[0].in[1].signature, "s");
  EXPECT_EQ(description[0].out[0].signature, "i");
}

TEST(CallLog, HidesSecretsAndKeepsLastCalls) {
  CallLog log;
  for (std::size_t i = 0; i < CallLog::kLength; ++i) {
    log.note(callOf("old", ""), ":1.1", Disclosure::Everything);
  }
  log.note(callOf("secret", "qsa"), ":1.2", Disclosure::SizesOnly);
  log.note(callOf("open", "qsa"), ":1.3", Disclosure::Everything);
  log.noteAnswer(CallLog::kLength + 1, "answer", {7});
  log.noteAnswer(0, "answer", "to a call that is forgotten");
  Json calls = log.list();
  ASSERT_EQ(calls.size(), CallLog::kLength);
  for (Json& call : calls) EXPECT_EQ(call.erase("time"), 1U);
  EXPECT_EQ(
      asText(calls[CallLog::kLength - 2]),
      R"({"method":"secret","sender":":1.2","arguments":[{"size":2},{"size":4},{"size":5}]})");
  EXPECT_EQ(asText(calls[CallLog::kLength - 1]),
            R"({"method":"open","sender":":1.3","arguments":[1,"text",)"
            R"({"size":5,"hex":"6279746573"}],"answer":[7]})");
}

TEST(CallLog, FitsOneMessageWithLongCalls) {
  constexpr std::size_t kList = 65'000'000;
  CallLog log;
  ZQBusMessage call(ZQBusMessageType::MethodCall, "long");
  call.appendString(std::string(300, 'x'));
  for (int i = 0; i < 999; ++i) call.appendString(std::string(10'000, '\1'));
  const Json& noted = *log.find(log.note(call, ":1.1", Disclosure::Everything));
  log.noteAnswer(0, "answer", argumentsAsJson(call, Disclosure::Everything, 8));
  const Json& arguments = noted["arguments"];
  EXPECT_EQ(asText(arguments[0]), R"({"size":300,"text":")" + std::string(256, 'x') + R"("})");
  EXPECT_EQ(asText(arguments.back()), R"({"more":968})");
  EXPECT_LT(asText(noted).size(), kList / CallLog::kLength);
}

TEST(JsonText, IsUtf8) {
  EXPECT_EQ(asText(Json("a\xff")), "\"a\xEF\xBF\xBD\"");
}

class ServiceMethods : public OfficeWorld {
 protected:
  /// The number that the call answers.
  int32_t call(const char* method, const std::vector<ZQBusArgument>& arguments) {
    ZQBusMessage call(ZQBusMessageType::MethodCall, method);
    for (const auto& argument : arguments) call.append(argument);
    int32_t number = -1;
    table.handle(call, [&](const Answer& answer) {
      EXPECT_EQ(answer.errorText(), "");
      number = answer.arguments().readInt32(0);
    });
    return number;
  }
  Json state() const { return stateAsJson(world); }

  static constexpr int32_t kDesktop = kOffice;
  const MethodTable table{perixMethods(world)};
};

std::string pipeBlock(uint32_t desktop, const std::string& label) {
  std::string block(268, '\0');
  std::memcpy(block.data(), &desktop, sizeof desktop);
  return block.replace(12, label.size(), label);
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

TEST_F(ServiceMethods, AddAllSharedPrintersOrNone) {
  const std::string host = "10.0.0.5";
  EXPECT_EQ(call("addSharePrinter", {1, host, "a", "", host, "b", ""}), 8);
  EXPECT_EQ(call("addSharePrinter", {2, host, "a", "", host, "", ""}), 8);
  EXPECT_EQ(call("addSharePrinter", {2, host, "a", "", host, "b", ""}), 0);
  EXPECT_EQ(call("addSharePrinter", {2, host, "c", "", host, "a", ""}), 9);
  EXPECT_EQ(state()["printers"].size(), 5U);
}

TEST(Fault, MeetsAsManyCallsAsAsked) {
  Faults faults;
  EXPECT_EQ(faults.set("m", "drop", 0, 2), "");
  EXPECT_EQ(faults.set("*", "delay", 5, 0), "");
  EXPECT_EQ(faults.set("m", "drop", 0, 1), "");
  EXPECT_FALSE(faults.take("other").drop);
  EXPECT_TRUE(faults.take("m").drop);
  const FaultPlan third = faults.take("m");
  EXPECT_FALSE(third.drop);
  EXPECT_EQ(third.delay.count(), 5);
  EXPECT_EQ(faults.list().size(), 1U);
}

TEST(Fault, DistortsAnswersInTypeAndLength) {
  const ZQBusMessage message = zq::message(1, "text", bytes("0123456789"));
  const Answer shorter = FaultPlan{.recordLength = 4}.distort(Answer::of(message));
  EXPECT_EQ(shorter.arguments().toDebugString(),
            zq::message(1, "text", bytes("0123")).toDebugString());
  const Answer other = FaultPlan{.wrongType = true}.distort(Answer::of(message));
  ASSERT_EQ(other.arguments().argCount(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NE(other.arguments().arguments()[i].index(), message.arguments()[i].index()) << i;
  }
}

}  // namespace
}  // namespace zq::devservice
