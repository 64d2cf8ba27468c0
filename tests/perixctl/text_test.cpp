#include <gtest/gtest.h>

#include <clocale>

#include "platform/text/escape.h"
#include "tools/perixctl/outcome.h"
#include "tools/perixctl/shell_command.h"

namespace zq::ctl {
namespace {

TEST(Text, IsShownWithoutControlCharacters) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "plain"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x96\xa8", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x96\xa8"},
      {"\033[2J\n\t\x7f", R"(\x1b[2J\n\x09\x7f)"},
      {"a\u202eb\u2066c\u2069", R"(a\u202eb\u2066c\u2069)"},  // turn the direction of writing
      {"\u009bm", R"(\u009bm)"},                              // a control of the second block
      {"\xff\xc3", R"(\xff\xc3)"},                            // no sequence, and half of one
      {"\xc0\xaf\xe0\x80\xaf", R"(\xc0\xaf\xe0\x80\xaf)"},    // overlong
      {"\xed\xa0\x80\xf4\x90\x80\x80", R"(\xed\xa0\x80\xf4\x90\x80\x80)"},  // no characters
      {std::string("a\0b", 3), "a\\x00b"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(escaped(text), shown);
  EXPECT_EQ(escapedLines("a\nb\r"), "a\nb\\x0d");
}

TEST(ShellCommand, QuotesNames) {
  EXPECT_EQ(shellCommand("device why", {"it's; a `x`", "--host", "pc-1"}),
            R"(perixctl device why -- 'it'\''s; a `x`' --host pc-1)");
}

TEST(Table, IsAlignedByCharacters) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  const Outcome outcome = tableOf(
      {{{"name", "e\u0301"}, {"id", 1}, {"connected", 1}}, {{"name", "日本"}, {"id", nullptr}}},
      {{"name", "NAME"}, {"id", "ID"}});
  EXPECT_EQ(renderText(outcome, {}), "NAME  ID\ne\u0301     1\n日本  -\n");
}

TEST(Document, IsOneLineOfJson) {
  const std::string json = renderJson({{"name", "a\xff\n"}});
  EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 1);
  EXPECT_FALSE(Json::parse(json, nullptr, false).is_discarded());
}

TEST(Document, IsDiscardedWhenItIsTooDeep) {
  const auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_FALSE(parsedText(nested(60)).is_discarded());
  EXPECT_TRUE(parsedText(nested(100'000)).is_discarded());
}

}  // namespace
}  // namespace zq::ctl
