#include "service/bus/method_table.h"

#include <gtest/gtest.h>

#include <map>

#include "service/bus/call_log.h"
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

TEST(MethodTable, ChecksArguments) {
  const MethodTable table({
      method("none", ""),
      method("two", "desktop:i device:q"),
      method("maybe", "desktop:i ?value:x"),
      method("group", "count:i *address:s name:ay"),
  });
  const struct {
    const char* name;
    const char* signatures;
    const char* error;
  } cases[] = {
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
  for (const auto& expected : cases) {
    SCOPED_TRACE(std::string(expected.name) + " " + expected.signatures);
    std::string error;
    table.handle(callOf(expected.name, expected.signatures),
                 [&](const Answer& answer) { error = answer.errorText(); });
    EXPECT_EQ(error, expected.error);
  }
}

TEST(MethodTable, DescribesMethods) {
  const auto description = MethodTable({method("group", "count:i *address:s")}).description();
  ASSERT_EQ(description.size(), 1U);
  ASSERT_EQ(description[0].in.size(), 2U);
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
  constexpr std::size_t kMessage = std::size_t{64} << 20;
  CallLog log;
  ZQBusMessage call(ZQBusMessageType::MethodCall, "long");
  call.appendString(std::string(300, 'x'));
  for (int i = 0; i < 999; ++i) call.appendString(std::string(10'000, '\1'));
  const Json& noted = *log.find(log.note(call, ":1.1", Disclosure::Everything));
  const Json& arguments = noted["arguments"];
  EXPECT_EQ(asText(arguments[0]), R"({"size":300,"text":")" + std::string(256, 'x') + R"("})");
  EXPECT_EQ(asText(arguments.back()), R"({"more":968})");
  EXPECT_LT(asText(noted).size(), kMessage / CallLog::kLength);
}

TEST(JsonText, IsUtf8) {
  EXPECT_EQ(asText(Json("a\xff")), "\"a\xEF\xBF\xBD\"");
}

}  // namespace
}  // namespace zq::devservice
