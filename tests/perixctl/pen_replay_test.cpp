// Recorded strokes: what is wrong with them, and the packets they make.
#include <gtest/gtest.h>

#include <sstream>

#include "tests/perixctl/tool_world.h"
#include "tools/embedded/private_bus.h"
#include "tools/perixctl/outcome.h"

namespace zq::ctl {
namespace {

// What `perixctl pen replay` makes of a file with that content; a recording needs no service.
ChildProcess::Result replay(const std::string& content, const std::string& options = "") {
  static const PrivateBus bus;
  return runPerixctlOn(bus.address(), options + " pen replay <(printf '%s' '" + content + "')");
}

TEST(PenReplay, RefusesWrongRecordingWithPlace) {
  const std::pair<const char*, const char*> faults[] = {
      {R"({"type":"press","x":1,"y":2,"pressure":1}
nonsense)",
       ":2: not JSON from column 2 on"},
      {"\n\n[1]", ":3: not a JSON object"},
      {R"({"x":1,"y":2,"pressure":1})", R"(:1: "type" is missing)"},
      {R"({"type":"tap","x":1,"y":2,"pressure":1})", R"(:1: "type" is not "press", "move")"},
      {R"({"type":"move","x":1,"pressure":1})", R"(:1: "y" is missing)"},
      {R"({"type":"move","x":"1","y":2,"pressure":1})", R"("x" is not a number from -1000000)"},
      {R"({"type":"move","x":1e300,"y":2,"pressure":1})", R"("x" is not a number)"},
      {R"({"type":"move","x":1e400,"y":2,"pressure":1})", ":1: a number has too many digits"},
      {R"({"type":"move","x":1,"y":2,"pressure":1.01})",
       R"("pressure" is not a number from 0 to 1)"},
      {R"({"type":"move","x":1,"y":2,"pressure":1,"xTilt":0.5})",
       R"("xTilt" is not a whole number)"},
      {R"({"type":"move","x":1,"y":2,"pressure":1,"delayMs":-1})", R"("delayMs" is not a whole)"},
      {R"({"type":"move","x":1,"y":2,"presure":1})", R"(no member is called "presure")"},
  };
  for (const auto& [content, complaint] : faults) {
    const ChildProcess::Result result = replay(content);
    SCOPED_TRACE(std::string(content) + "\n" + result.error);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.error.find("perixctl: /dev/fd/"), std::string::npos);
    EXPECT_NE(result.error.find(complaint), std::string::npos);
  }
}

TEST(PenReplay, ShowsOnePacketALineAtItsPace) {
  const auto start = std::chrono::steady_clock::now();
  const ChildProcess::Result result = replay(R"(
{"type":"press","x":-1,"y":40,"pressure":0.5,"rotation":-10.25,"xTilt":-12,"yTilt":34}
{"type":"move","x":7.6,"y":41,"pressure":1,"delayMs":150}
{"type":"release","x":8,"y":42,"pressure":0,"delayMs":150})",
                                             "--json");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  ASSERT_EQ(result.status, 0) << result.error;
  std::vector<Json> packets;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) packets.push_back(Json::parse(line));
  ASSERT_EQ(packets.size(), 3U);
  const std::string hex = packets[0]["hex"];
  EXPECT_EQ(hex.size(), 2 * 198U);
  EXPECT_TRUE(hex.starts_with("c20000002701d00701000000c200000000000000ff0003000000")) << hex;
  packets[0].erase("hex");
  EXPECT_EQ(packets[0], Json::parse(R"({"packet":1,"type":"press","code":155651,"x":-1,"y":40,
      "pressure":0.5,"rotation":-10.25,"xTilt":-12,"yTilt":34})"));
  EXPECT_EQ(packets[1]["code"], 0x26016);
  EXPECT_EQ(packets[1]["x"], 8);
  EXPECT_EQ(packets[2]["code"], 0x26002);
}

}  // namespace
}  // namespace zq::ctl
