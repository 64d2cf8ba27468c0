// perixctl on the bus of another machine, which a stand-in for ssh reaches on this one.
#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "tests/perixctl/tool_world.h"

namespace zq::ctl {
namespace {

// The words behind "ssh -xT -- HOST" are one command line for the shell there.
constexpr const char* kLogin = "shift 3; exec sh -c \"$*\"";

// The stand-in's commands, null without ssh; the session bus there, null for the world's; the
// words; the exit code; a part of the output, or of the errors of a failure.
using Text = const char*;
const std::tuple<Text, Text, Text, int, Text> kRemotes[] = {
    {kLogin, nullptr, "--host me@box device list", 0, "Desk camera"},
    {"[ \"$3\" = me@box ] || exit 9\nshift 3; exec sh -c \"$*\"", nullptr,
     "--host me@box service state --json", 0, "\"desktops\""},
    {kLogin, nullptr, "--host me@box device why win10 3", 0, "the session bus of me@box"},
    {nullptr, nullptr, "--host me@box device list", 8, "ssh is not installed on this machine"},
    {"exit 255", nullptr, "--host me@box device list", 8, "ssh has no connection to me@box"},
    {"exit 127", nullptr, "--host me@box device list", 8,
     "systemd-stdio-bridge is not installed on me@box"},
    {kLogin, "unix:path=/nonexistent", "--host me@box device list", 8,
     "me@box has no session bus, or the bus does not admit this user\n"
     "perixctl: no connection to the session bus of me@box\n"},
    {kLogin, nullptr, "--host=-oProxyCommand=x device list", 2, "is not the name of a machine"},
    {kLogin, nullptr, "--host box --embedded device list", 2, "not both"},
};

TEST(RemoteHost, IsReachedOrReasonIsTold) {
  const ToolWorld world;
  const auto programs = world.directory() / "programs";
  std::filesystem::create_directory(programs);
  for (const char* program : {"sh", "id", "systemd-stdio-bridge", "bash"}) {
    std::filesystem::create_symlink(findInPath(program), programs / program);
  }
  for (const auto& [ssh, bus, words, exitCode, expected] : kRemotes) {
    SCOPED_TRACE(words);
    std::filesystem::remove(programs / "ssh");
    if (ssh != nullptr) {
      std::ofstream(programs / "ssh") << "#!/bin/sh\n" << ssh << "\n";
      std::filesystem::permissions(programs / "ssh", std::filesystem::perms::owner_all);
    }
    const std::string address = bus != nullptr ? bus : world.service.busAddress();
    const auto result =
        world.run(words, {{"PATH", programs}, {"DBUS_SESSION_BUS_ADDRESS", address}});
    EXPECT_EQ(result.status, exitCode);
    const std::string& said = exitCode == 0 ? result.output : result.error;
    EXPECT_NE(said.find(expected), std::string::npos) << result.output << result.error;
  }
}

}  // namespace
}  // namespace zq::ctl
