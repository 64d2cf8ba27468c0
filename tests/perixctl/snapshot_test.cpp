// A snapshot of a running service, played by another one.
#include <gtest/gtest.h>

#include "tests/perixctl/tool_world.h"
#include "tests/support/trace_text.h"

namespace zq::ctl {
namespace {

// Scenarios, and commands that change them.
const std::pair<const char*, std::vector<const char*>> kWorlds[] = {
    {SCENARIOS "/office.toml", {}},
    {SCENARIOS "/bare.toml", {}},
    {SCENARIOS "/crowd.toml", {}},
    {SCENARIO,
     {"device connect win10 1", "device ignore 'New audio'", "policy set 2 forbid",
      "device autoconnect set scanner on", "device network add 4 scan@10.0.0.9",
      R"(service plug sourceId=0xffffffffffffffff name=$'"\e[31m\\\n\u202ename')",
      "printer connect win10 'Front office'", "printer command win10 1 pause",
      "printer network add 10.0.0.8 Copy 'third floor'",
      "printer shared add 10.0.0.5 Hall 'second floor'",
      "printer shared add 10.0.0.5 'Front office'", "printer local add Desk usb:1 Laser",
      "property set 046d:0825 7 -- -2", "turbo set 046d:0825 fps=60",
      R"(joystick mapping set 045e:028e '{"b":2}')"}},
};

TEST(Snapshot, LoadsAsSameWorld) {
  for (const auto& [scenario, changes] : kWorlds) {
    SCOPED_TRACE(scenario);
    const ToolWorld field(scenario);
    for (const char* change : changes) field.succeed(change);
    const std::string file = field.directory() / "snapshot.toml";
    const std::string again = field.directory() / "again.toml";
    field.succeed("snapshot " + file);
    const ToolWorld laboratory(file);
    for (const char* view :
         {"--json device list", "--json printer list", "--json printer summary",
          "--json printer network list", "--json printer driver list", "--json policy list",
          "--json joystick list", "desktop list --fields desktop,id",
          "joystick mapping get 045e:028e", "property get 046d:0825 7",
          "property get 046d:0825 7 --local", "turbo get 046d:0825", "camera status",
          "device autoconnect get scanner", "device autoconnect get camera"}) {
      EXPECT_EQ(laboratory.succeed(view), field.succeed(view));
    }
    laboratory.succeed("snapshot " + again);
    EXPECT_EQ(linesOf(again), linesOf(file));
  }
}

TEST(Snapshot, ListsRecordsThatNoScenarioCanHold) {
  const ToolWorld field;
  field.succeed(R"--(printer network add 10.0.0.9 "$(printf '\xff%.0s' {1..200})")--");
  field.succeed("service plug name=Twin devNumber=257");
  field.succeed("service fault set getDeviceList short-record 1");  // the low byte of the number
  const std::string text = field.succeed("snapshot");
  for (const char* part : {R"(: its name is changed to '\xff\xff)",
                           "device 1 is left out: another record has its device number, 1"}) {
    EXPECT_NE(text.find(part), std::string::npos) << text.substr(0, 2000) << "\nlacks " << part;
  }
}

}  // namespace
}  // namespace zq::ctl
