// The causes for which a device is not redirected, planted one by one.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <tuple>

#include "tests/perixctl/tool_world.h"
#include "tests/support/open_bus.h"
#include "tools/embedded/private_bus.h"
#include "tools/perixctl/outcome.h"
#include "zqbus/zqbus.h"

namespace zq::ctl {
namespace {

namespace fs = std::filesystem;

/// The links, a line each with its remedy; words stand one space apart.
std::string linksIn(const ChildProcess::Result& result) {
  std::string links;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(' ')) links += '\n';
    std::istringstream words(line);
    for (std::string word; words >> word;) links += (links.ends_with('\n') ? "" : " ") + word;
  }
  return links;
}

/// `cause` is the first link that is broken, empty for none; `part` stands in any link.
void expectAnswer(const ChildProcess::Result& result, int status, const std::string& cause,
                  const std::string& part = "") {
  const std::string links = linksIn(result);
  const auto at = links.find("✗");
  const std::string broken =
      at == std::string::npos ? "" : links.substr(at, links.find('\n', at) - at);
  EXPECT_EQ(broken, cause.empty() ? "" : "✗ " + cause);
  EXPECT_EQ(result.status, status) << links << result.error;
  EXPECT_NE(links.find(part), std::string::npos) << links << "\nlacks " << part;
}

// --- The model -----------------------------------------------------------------------------------

struct ModelCause {
  const char* words;       ///< of 'device why'
  std::string cause;       ///< empty for none
  const char* part = "";   ///< that must stand in a link, too
  const char* plant = "";  ///< shell commands, in which p is perixctl
  int status = cause.empty() ? 0 : 1;
};

const ModelCause kModelCauses[] = {
    {"win10 3", "", "✓ state idle: no desktop has it"},
    {"win10 Gamepad", "", "✓ diagnosis the service's own diagnosis: no fault found"},
    {"win10 1", "", "✓ state connected to win10: it is redirected", "p device connect win10 1"},
    {"win12 1",
     "desktop no desktop is called 'win12'; there are: debian, win10; did you mean 'win10'? → "
     "connect it with its client, or give a name that perixctl desktop list shows",
     "– diagnosis not checked without the link 'desktop'"},
    {"debian 1",
     "session the session is not open: its client has not connected it → connect the desktop with "
     "its client, or perixctl desktop connect debian"},
    {"win10 77",
     "device no device 77 → plug it in, or give a device that perixctl device list shows"},
    {"win10 'Desk camra'",
     "device no device is called 'Desk camra'; did you mean 'Desk camera'? → plug it in, or give a "
     "device that perixctl device list shows"},
    {"--root plugged win10 'web camera'",
     "device the service does not know 'Web Camera', which is plugged in at 1-2 → plug it in "
     "again, and look at the service's log"},
    {"win10 0x100000001",
     "state connected to another desktop, debian → perixctl device disconnect debian 1", "",
     "p desktop connect debian; p device connect debian 1"},
    {"win10 1",
     "policy the policy of device 1: forbid; its vendor and product: forbid → perixctl policy set "
     "1 allow",
     "connectDevice: result 7, forbidden by the device's policy; desktop 'win10', device 1",
     "p policy set 1 forbid; ! p device connect win10 1"},
    {"win10 4",
     "decision it is new, and waits for the decision of the user → decide: perixctl device "
     "configure win10 4"},
    {"win10 5",
     "state it is ignored until it is plugged again, by a decision of the user → plug it again, or "
     "perixctl device connect win10 5",
     "", "p device ignore 5; until p device status 5 | grep -q ignored; do :; done"},
    {"win10 3", "", "✓ automatic devices of its type connect by themselves",
     "p device autoconnect set joystick on"},
    {"win10 3", "", "– automatic not known: the service answered with an error: injected fault",
     "p service fault set getAutoConnect error"},
    {"win10 1", "", "✓ policy the policy of device 1: ask; its vendor and product: not known: ",
     "p service fault set getPolicyListByVidPid error"},
    {"win10 3", "", "✓ session the session is open", "p service fault set getDeviceList error"},
    {"win10 1",
     "device the service answered with an error: injected fault → look at the service's log", "",
     "p service fault set getDeviceStatus error"},
    {"win10 1",
     "diagnosis the service answered with an error: injected fault → look at the service's log", "",
     "p service fault set diagnoseDevice error"},
    {"--root empty win10 1",
     "usb no USB device 046d:0825 is plugged in here → plug it in; lsusb -d 046d:0825 shows it "
     "then"},
    {"--root nodeless win10 1",
     "usb 046d:0825 is plugged in at 1-2, but its node cannot be opened: "
     "nodeless/dev/bus/usb/001/004: No such file or directory → give this user access to the "
     "node: TAG+=\"uaccess\" in a rule of udev, or the node's group"},
    {"--root locked win10 1",
     "usb 046d:0825 is plugged in at 1-2, but its node cannot be opened: "
     "locked/dev/bus/usb/001/004: Permission denied → give this user access to the "
     "node: TAG+=\"uaccess\" in a rule of udev, or the node's group"},
    {"--root plugged win10 1", "",
     "✓ usb 046d:0825 is plugged in at 1-2, and its node can be opened"},
    {"win10 1",
     "answer the service perix died before it answered → look at the service's log, and start it "
     "again",
     "", "p service fault set getVmList crash", 8},
};

/// Runs shell commands, in which p is perixctl.
void plant(const ToolWorld& world, const std::string& commands) {
  ::setenv("ZQBUS_ADDRESS", world.service.busAddress().c_str(), 1);
  ::setenv("XDG_STATE_HOME", world.directory().c_str(), 1);
  const std::string script = "exec >/dev/null; set -e; p() { " PERIXCTL " \"$@\"; }; " + commands;
  EXPECT_EQ(std::system(script.c_str()), 0) << commands;
}

TEST(DeviceWhy, NamesEachCauseInModel) {
  const ToolWorld world;
  fs::current_path(world.directory());  // here are the roots
  plant(world, R"(mkdir -p empty/sys/bus/usb/devices
      for root in nodeless plugged locked; do
        device=$root/sys/bus/usb/devices/1-2
        mkdir -p $device $root/dev/bus/usb/001
        for file in product:Web\ Camera idVendor:046d idProduct:0825 busnum:1 devnum:4; do
          echo ${file#*:} >$device/${file%:*}
        done
      done
      touch plugged/dev/bus/usb/001/004
      install --mode=0 /dev/null locked/dev/bus/usb/001/004
      mkdir -p perix
      mkfifo perix/pipe.log
      ln -s /dev/zero perix/endless.log)");
  for (const ModelCause& row : kModelCauses) {
    SCOPED_TRACE(row.words + (": " + row.cause));
    const bool locked = row.cause.find("Permission denied") != std::string::npos;
    if (locked && ::geteuid() == 0) continue;  // root may open every node
    plant(world, "p service reload; p service fault clear; " + std::string(row.plant));
    const auto before = world.run("--json service state").output;
    const auto result = world.run(std::string("device why ") + row.words);
    expectAnswer(result, row.status, row.cause, row.part);
    EXPECT_EQ(result.output.find("nothing stands in the way") != std::string::npos,
              row.status == 0);
    if (row.status == 8) break;  // the service is gone
    EXPECT_EQ(world.run("--json service state").output, before);
  }
}

TEST(DeviceWhy, IsDocumentToo) {
  const ToolWorld world;
  const auto result = world.run("--json device why win10 4");
  EXPECT_EQ(result.status, 1);
  const Json document = Json::parse(result.output);
  EXPECT_EQ(document["cause"], "decision");
  EXPECT_EQ(document["links"][0]["state"], "good");
  EXPECT_EQ(document["links"].at(9).value("remedy", ""),
            "decide: perixctl device configure win10 4");
  EXPECT_TRUE(world.run("device why win10 4", {{"LC_ALL", "C"}}).output.starts_with("ok  bus "));
}

// --- The way to the service ----------------------------------------------------------------------

/// A listening socket that accepts no connection.
OwnedDescriptor listenAt(const std::string& path) {
  OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un name{AF_UNIX, {}};
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  EXPECT_EQ(::listen(socket.get(), 8), 0);
  return socket;
}

/// Closes each connection once its greeting has begun, as a proxy does, until the socket ends.
void closeConnections(int socket) {
  for (char byte = 0;;) {
    const OwnedDescriptor client(::accept(socket, nullptr, nullptr));
    if (!client) return;
    (void)::recv(client.get(), &byte, 1, 0);
  }
}

TEST(DeviceWhy, NamesUnusableBusAndMissingService) {
  const PrivateBus bus;
  PrivateBus deadBus;
  deadBus.kill();
  const PrivateBus guardedBus;
  const std::string& guarded = guardedBus.address();
  fs::permissions(guarded.substr(guarded.find('=') + 1), fs::perms::none);
  PrivateBus starter;
  std::ofstream(starter.directory() / "services/org.zqbus.perix.service")
      << "[D-BUS Service]\nName=org.zqbus.perix\nExec=/usr/bin/touch "
      << (starter.directory() / "started").string() << '\n';
  starter.restart();  // a bus reads its activation files when it starts
  const std::string inDirectory = "unix:path=" + bus.directory().string();
  const std::string missing = inDirectory + "/missing";
  const std::string silent = inDirectory + "/silent";
  const std::string closing = inDirectory + "/closing";
  const auto silentSocket = listenAt(bus.directory() / "silent");
  const auto closingSocket = listenAt(bus.directory() / "closing");
  const std::jthread closer(closeConnections, closingSocket.get());
  const std::string elsewhere =
      " → the address comes from ZQBUS_ADDRESS: set it to a bus that runs and admits this user";
  const std::string unreached = "bus cannot reach the bus at ";
  const std::string unowned = "service nobody owns org.zqbus.perix on this bus";
  const std::pair<std::string, std::string> rows[] = {
      {bus.address(), unowned + " → start the service (to try things out: perix-devservice)"},
      {starter.address(), unowned +
                              ", which can start the service → the next call starts it, unless "
                              "ZQBUS_ACTIVATE=0: perixctl service status"},
      {deadBus.address(), unreached + deadBus.address() + ": Connection refused" + elsewhere},
      {missing, unreached + missing + ": No such file or directory" + elsewhere},
      {guarded, unreached + guarded + ": Permission denied" + elsewhere},
      {"session", "bus the address of the bus is not valid: session" + elsewhere},
      {"",
       "bus no bus is named: neither ZQBUS_ADDRESS nor DBUS_SESSION_BUS_ADDRESS nor "
       "XDG_RUNTIME_DIR is set → start a session bus (dbus-run-session), or set ZQBUS_ADDRESS"},
      {closing, "bus the bus at " + closing +
                    " closed the connection during the authentication (Connection reset "
                    "by peer), as a bus proxy does that takes no pipelined "
                    "authentication" +
                    elsewhere},
      {silent, "bus the bus at " + silent + " does not answer" + elsewhere},
  };
  for (const auto& [address, cause] : rows) {
    if (address == guarded && ::geteuid() == 0) continue;  // root may reach every bus
    for (const char* words : {"device why win10 1", "doctor"}) {
      SCOPED_TRACE(words + cause);
      expectAnswer(runPerixctlOn(address, words,
                                 {{"DBUS_SESSION_BUS_ADDRESS", ""},
                                  {"XDG_RUNTIME_DIR", ""},
                                  {"XDG_STATE_HOME", bus.directory()}}),
                   8, cause);
    }
  }
  EXPECT_FALSE(fs::exists(starter.directory() / "started"));
  ::shutdown(closingSocket.get(), SHUT_RDWR);
}

TEST(DeviceWhy, NamesHangingService) {
  ToolWorld world;
  world.service.pause();
  expectAnswer(world.run("device why win10 1"), 1,
               "answer the service hangs: no answer within 3000 ms → look at process " +
                   std::to_string(world.service.processId()) +
                   " (perix-devservice) and its log, or restart it");
}

TEST(DeviceWhy, NamesServiceOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start a service of another user";
  const OpenBus bus;
  ChildProcess service({.arguments = {"setpriv", "--reuid=65534", "--clear-groups", DEVSERVICE,
                                      "--ready-fd", "3", "--scenario", SCENARIO},
                        .environment = {{"ZQBUS_ADDRESS", bus.address}},
                        .readiness = true});
  ASSERT_TRUE(service.readinessLine(std::chrono::seconds(30)));
  expectAnswer(runPerixctlOn(bus.address, "device why win10 1"), 8,
               "user the service runs as user nobody, and clients trust this user and root alone → "
               "run the service as user root, or use the bus of user nobody as that user");

  // Over ssh this process is the user of the login, whom the service trusts, and who trusts it.
  const fs::path login = fs::path(bus.address.substr(bus.address.find('=') + 1)).parent_path();
  std::ofstream(login / "ssh")
      << "#!/bin/sh\nshift 3; exec setpriv --reuid=65534 --clear-groups sh -c \"$*\"\n";
  fs::permissions(login / "ssh", fs::perms::owner_all);
  const auto remote = runPerixctlOn(bus.address, "--host nobody@box device why win10 1",
                                    {{"PATH", login.string() + ':' + std::getenv("PATH")},
                                     {"DBUS_SESSION_BUS_ADDRESS", bus.address}});
  expectAnswer(remote, 0, "", "✓ user the service runs as this user");
}

TEST(DeviceWhy, TellsWhyServiceGaveNoLine) {
  constexpr std::size_t kFarMoreThanThereAre = 10'000;
  const ToolWorld world;
  expectAnswer(world.run("device why win10 1", {{"ZQBUS_DIRECT", "0"}}), 0, "",
               "– line calls go through the broker, as ZQBUS_DIRECT=0 asks");
  ::setenv("ZQBUS_ADDRESS", world.service.busAddress().c_str(), 1);
  std::vector<std::shared_ptr<ZQBusProxyInterface>> lines;
  do {
    lines.push_back(ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
        "perix", ZQBusSecurityFlags::TrustedPeer, 1));
    ASSERT_LT(lines.size(), kFarMoreThanThereAre);
  } while (lines.back()->way() == ZQBusWay::Direct);
  expectAnswer(world.run("device why win10 1"), 0, "",
               "– line calls go through the broker: the service gave no direct line");
}

TEST(Doctor, NamesEachFaultWithRemedy) {
  const ToolWorld world;
  const std::tuple<const char*, int, const char*> rows[] = {
      {"doctor", 0, "✓ daemon process "},
      {"doctor", 0, "; the service: version 7"},
      {"service run -- env XDG_STATE_HOME=/dev/null " PERIXCTL " doctor", 1,
       "✗ log there is no directory for the log → set XDG_STATE_HOME to a directory of this user"},
      {"service run -- bash -c 'cd $(dirname ${ZQBUS_ADDRESS#*=}) && mkdir -p x/perix && "
       "ln -s /dev/null x/perix/perixctl.log && XDG_STATE_HOME=$PWD/x " PERIXCTL " doctor'",
       1, ": perixctl.log is not a regular file → mend"},
      {"service fault set getPerixCmdHelp error", 0, ""},
      {"doctor", 0, "; the service: not known: the service answered with an error: injected fault"},
      {"service run -- prlimit --nofile=100 " PERIXCTL " doctor", 1,
       "of 100 descriptors open → raise ulimit -n"},
  };
  for (const auto& [words, status, part] : rows) {
    const auto result = world.run(words);
    EXPECT_EQ(result.status, status) << result.output;
    EXPECT_NE(linksIn(result).find(part), std::string::npos) << result.output << "lacks " << part;
  }
}

}  // namespace
}  // namespace zq::ctl
