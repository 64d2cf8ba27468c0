#include <gtest/gtest.h>

#include "tools/perixctl/outcome.h"

namespace zq {
namespace {

TEST(TextsOfTheService, ReachTheTerminalWithoutControlCharactersAndAsUtf8) {
  const struct {
    std::string text;
    std::string shown;
  } cases[] = {
      {"plain", "plain"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x96\xa8", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x96\xa8"},
      {"\033[2J\n\t\x7f", "\\x1b[2J\\x0a\\x09\\x7f"},
      {"\xc2\x9b"
       "31m",
       "\\xc2\\x9b31m"},                                      // a control of the second block
      {"\xff\xc3", "\\xff\\xc3"},                             // no sequence, and half of one
      {"\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},  // overlong
      {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},  // no characters
      {std::string("a\0b", 3), "a\\x00b"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(escaped(text), shown);
  EXPECT_EQ(escapedLines("a\nb\r"), "a\nb\\x0d");
}

TEST(ATable, IsAlignedByCharactersAndShowsMissingValuesAsADash) {
  const Outcome outcome =
      tableOf({{{"name", "\xc3\xa9"}, {"id", 1}}, {{"name", "long"}, {"id", nullptr}}},
              {{"name", "NAME"}, {"id", "ID"}});
  EXPECT_EQ(renderText(outcome, false), "NAME  ID\n\xc3\xa9     1\nlong  -\n");
}

TEST(ADocument, IsOneLineOfJsonWhateverBytesTheServiceSent) {
  const std::string json = renderJson({{"name", "a\xff\n"}});
  EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 1);
  EXPECT_FALSE(Json::parse(json, nullptr, false).is_discarded());
}

}  // namespace
}  // namespace zq
