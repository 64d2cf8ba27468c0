#include "service/scenario/scenario.h"

#include <gtest/gtest.h>

namespace zq::devservice {
namespace {

TEST(Scenario, IsRefusedWithPlaceOfEachMistake) {
  const std::string longName(128, 'x');
  const std::string desktop = "[[desktop]]\nid = 1\nname = 'd'\n";
  const std::string device = "[[device]]\nname = 'c'\n";
  // Each line of the mistakes begins with "w.toml:" and the words here.
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"[[desktop]", {"1:11: "}},
      {"a = '\xff'", {"1:5: "}},
      {"[[desk]]", {"1:3: unknown key desk; there are: command, desktop, "}},
      {"desktop = 3", {"1:11: desktop has the wrong type; it is a list"}},
      {"desktop = [3]", {"1:12: desktop is a list of tables"}},
      {"[desktop]\nid = 1", {"1:1: desktop must be a list of tables: [[desktop]]"}},
      {"service = 3", {"1:11: service has the wrong type; it is a table"}},
      {"[[desktop]]\nname = 'd'", {"1:1: id is missing"}},
      {"[[desktop]]\nid = 0\nname = 'd'", {"2:6: id is out of range; it goes from 1"}},
      {"[[desktop]]\nid = '1'\nname = 7",
       {"2:6: id has the wrong type; it is a whole number",
        "3:8: name has the wrong type; it is a text"}},
      {desktop + desktop, {"5:6: duplicate id", "6:8: duplicate name"}},
      {"[[device]]\nname = '" + longName + "'", {"2:8: name has more than 127 bytes"}},
      {"[[device]]\nname = ''", {"2:8: name is empty"}},
      {device + "vid = 65536", {"3:7: vid is out of range"}},
      {device + "sourceId = -1", {"3:12: sourceId is out of range"}},
      {device + "sourceId = '18446744073709551616'", {"3:12: sourceId is out of range"}},
      {device + "sourceId = '7x'", {"3:12: sourceId is a text of other than digits"}},
      {device + "sourceId = 1.5",
       {"3:12: sourceId has the wrong type; it is a whole number or a text"}},
      {device + "type = 'toaster'", {"3:8: type is one of: usb, disk"}},
      {device + "mounted = 1", {"3:11: mounted has the wrong type"}},
      {device + "type = 'camera'\nmounted = true", {"4:11: only disks are mounted"}},
      {device + "waiting = true\nignored = true", {"4:11: a device that waits is not ignored"}},
      {device + "desktop = 'e'", {"3:11: there is no desktop e"}},
      {desktop + device + "desktop = 'd'", {"6:11: the desktop d is not connected"}},
      {device + "devNumber = 4\n[[device]]\nname = 'e'\ndevNumber = 4",
       {"6:13: duplicate devNumber"}},
      {device + "devNumber = 3\n[[device]]\nname = 'e'\ncopies = 3\ndevNumber = 1",
       {"7:13: duplicate devNumber"}},
      {device + "sourceId = 4294967298\n[[device]]\nname = 'e'",
       {"1:1: duplicate sourceId: the device e gets 4294967298"}},
      {device + "sourceId = 4294967298\n[[device]]\nname = 'e'\ndevNumber = 2",
       {"1:1: duplicate sourceId: the device e gets 4294967298"}},
      {device + "copies = 65535\n[[device]]\nname = 'e'",
       {"4:1: there are more devices than numbers"}},
      {device + "devNumber = 65000\ncopies = 1000", {"4:10: there are not as many numbers"}},
      {"[[printer]]\nname = 'p'\ndriver = 'none'", {"3:10: there is no driver none"}},
      {"[[host]]\naddress = '1.2.3.4'\nprinters = [{nam = 'p'}]",
       {"3:13: name is missing", "3:14: unknown key nam; there are: description"}},
      {"[[host]]\naddress = '1.2.3.256'\n[[host]]\naddress = '1.2.3.4:65536'",
       {"2:11: address is not of the form a.b.c.d", "4:11: address is not"}},
      {"[[test]]\nname = 't'\n[[test]]\nname = 't'", {"4:8: duplicate name"}},
      {"[[driver]]\nname = 't'\n[[driver]]\nname = 't'", {"4:8: duplicate name"}},
      {"[[host]]\naddress = '1.2.3.4'\n[[host]]\naddress = '1.2.3.4'", {"4:11: duplicate address"}},
      {"[[turbo]]\nvid = 1\npid = 2\nconfig = 'c'\n[[turbo]]\nvid = 1\npid = 2\nconfig = 'c'",
       {"6:7: duplicate vid and pid"}},
      {"[[command]]\nname = 't'\n[[command]]\nname = 't'", {"4:8: duplicate name"}},
      {"[[printer]]\nname = 1\n[[device]]\nvid = 1.5\nname = 2\n[timing]\nsummaryMs = true",
       {"2:8: name has", "4:7: vid has", "5:8: name has", "7:13: "}},
      {"[timing]\nprintJobMs = -1", {"2:14: printJobMs is out of range"}},
      {"[service]\nautoConnect = ['camera', 'toaster']", {"2:26: autoConnect is one of: usb"}},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::vector<std::string> mistakes;
    EXPECT_FALSE(parseScenario(text, "w.toml", mistakes));
    ASSERT_EQ(mistakes.size(), expected.size()) << testing::PrintToString(mistakes);
    for (std::size_t i = 0; i < mistakes.size(); ++i) {
      EXPECT_TRUE(mistakes[i].starts_with("w.toml:" + expected[i])) << mistakes[i];
    }
  }
}

TEST(Scenario, GivesEachKeyItsPlaceInWorld) {
  std::vector<std::string> mistakes;
  const auto scenario = parseScenario(
      "[[desktop]]\nid = 7\nname = 'd'\nconnected = true\n"
      "[[device]]\ndevNumber = 40\nsourceId = 5\ntype = 'disk'\nvid = 1\npid = 2\nname = 'c'\n"
      "detail = 'e'\npolicy = 'allow'\nmounted = true\ndesktop = 'd'\ncopies = 2\n"
      "[[host]]\naddress = '1.2.3.4'\nsearchMs = 3\nprinters = [{name = 'p'}]\n",
      "w.toml", mistakes);
  ASSERT_TRUE(scenario) << testing::PrintToString(mistakes);
  ASSERT_EQ(scenario->devices.size(), 2U);
  const Device& device = scenario->devices[1];
  EXPECT_EQ(device.number, 41);
  EXPECT_EQ(device.sourceId, 6U);
  EXPECT_EQ(device.type, DeviceType::Disk);
  EXPECT_EQ(device.id, (VidPid{1, 2}));
  EXPECT_EQ(device.name, "c #2");
  EXPECT_EQ(device.detail, "e");
  EXPECT_EQ(device.policy, DevicePolicy::Allow);
  EXPECT_TRUE(device.mounted);
  EXPECT_EQ(device.desktop, 7U);
  EXPECT_EQ(device.status, DeviceStatus::Connected);
  ASSERT_EQ(scenario->hosts.size(), 1U);
  EXPECT_EQ(scenario->hosts[0].searchMs, 3);
  EXPECT_EQ(scenario->hosts[0].printers[0].name, "p");
}

}  // namespace
}  // namespace zq::devservice
