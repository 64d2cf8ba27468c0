// The causes for which a device is not redirected, planted one by one.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "tests/perixctl/tool_world.h"
#include "tests/support/open_bus.h"
#include "tools/embedded/private_bus.h"
#include "tools/perixctl/outcome.h"
#include "zqbus/zqbus.h"

namespace zq::ctl {
namespace {

namespace fs = std::filesystem;

const Environment kUtf8 = {{"LC_ALL", "C.UTF-8"}};

/// The line of the first link that is broken, and the remedy behind it.
std::string causeIn(const std::string& output) {
  std::istringstream lines(output);
  std::string cause;
  for (std::string line; std::getline(lines, line);) {
    if (!cause.empty()) return cause + '\n' + line.substr(line.find_first_not_of(' '));
    if (line.starts_with("✗"))
      cause = line.substr(line.find_first_of("abcdefghijklmnopqrstuvwxyz"));
  }
  return cause;
}

/// A device's files in the kernel's file system, and its node if it has one.
void plugInto(const fs::path& root, bool hasNode) {
  const fs::path device = root / "sys/bus/usb/devices/1-2";
  fs::create_directories(device);
  for (const auto& [name, text] : std::map<std::string, const char*>{{"product", "Web Camera"},
                                                                     {"idVendor", "046d"},
                                                                     {"idProduct", "0825"},
                                                                     {"busnum", "1"},
                                                                     {"devnum", "4"}}) {
    std::ofstream(device / name) << text << '\n';
  }
  fs::create_directories(root / "dev/bus/usb/001");
  if (hasNode) std::ofstream(root / "dev/bus/usb/001/004");
}

std::string withoutSpaces(const std::string& text) {
  std::string joined;
  std::istringstream words(text);
  for (std::string word; words >> word;) joined += (joined.empty() ? "" : " ") + word;
  return joined;
}

void expectCause(const ChildProcess::Result& result, int status, const std::string& cause) {
  EXPECT_EQ(result.status, status) << result.output << result.error;
  EXPECT_EQ(withoutSpaces(causeIn(result.output)), cause) << result.output << result.error;
}

// --- The model -----------------------------------------------------------------------------------

struct ModelCause {
  std::vector<std::string> plant;  ///< commands
  std::string words;               ///< of 'device why'
  std::string cause;               ///< empty for none
  std::string line{};              ///< that must stand somewhere, too
  int status = cause.empty() ? 0 : 1;
  Environment environment = {};
};

const ModelCause kModelCauses[] = {
    {{}, "win10 3", "", "✓ state idle: no desktop has it"},
    {{}, "win10 Gamepad", "", "✓ diagnosis the service's own diagnosis: no fault found"},
    {{"device connect win10 1"}, "win10 1", "", "✓ state connected to win10: it is redirected"},
    {{},
     "win12 1",
     "desktop no desktop is called 'win12'; there are: debian, win10; did you mean 'win10'? → "
     "connect it with its client, or give a name that perixctl desktop list shows",
     "– diagnosis not checked without the link 'desktop'"},
    {{},
     "debian 1",
     "session the session is not open: its client has not connected it → connect the desktop with "
     "its client, or perixctl desktop connect debian"},
    {{},
     "win10 77",
     "device no device 77 → plug it in, or give a device that perixctl device list shows"},
    {{},
     "win10 'Desk camra'",
     "device no device is called 'Desk camra'; did you mean 'Desk camera'? → plug it in, or give a "
     "device that perixctl device list shows"},
    {{},
     "--root $ROOT/plugged win10 'web camera'",
     "device the service does not know 'Web Camera', which is plugged in at 1-2 → plug it in "
     "again, "
     "and look at the service's log"},
    {{"desktop connect debian", "device connect debian 1"},
     "win10 0x100000001",
     "state connected to another desktop, debian → perixctl device disconnect debian 1"},
    {{"policy set 1 forbid", "! device connect win10 1"},
     "win10 1",
     "policy the policy of device 1: forbid; its vendor and product: forbid → perixctl policy set "
     "1 "
     "allow",
     "connectDevice: result 7, forbidden by the device's policy; desktop 'win10', device 1"},
    {{},
     "win10 4",
     "decision it is new, and waits for the decision of the user → decide: perixctl device "
     "configure "
     "win10 4"},
    {{"device ignore 5", "-awaits ignored device status 5"},
     "win10 5",
     "state it is ignored until it is plugged again, by a decision of the user → plug it again, or "
     "perixctl device connect win10 5"},
    {{"device autoconnect set joystick on"},
     "win10 3",
     "",
     "✓ automatic devices of its type connect by themselves"},
    {{"service fault set getDeviceStatus error"},
     "win10 1",
     "device the service answered with an error: injected fault → look at the service's log"},
    {{"service fault set diagnoseDevice error"},
     "win10 1",
     "diagnosis the service answered with an error: injected fault → look at the service's log"},
    {{},
     "--root $ROOT/empty win10 1",
     "usb no USB device 046d:0825 is plugged in here → plug it in; lsusb -d 046d:0825 shows it "
     "then"},
    {{},
     "--root $ROOT/nodeless win10 1",
     "usb 046d:0825 is plugged in at 1-2, but its node cannot be opened: "
     "$ROOT/nodeless/dev/bus/usb/001/004: No such file or directory → give this user access to the "
     "node: TAG+=\"uaccess\" in a rule of udev, or the node's group"},
    {{},
     "--root $ROOT/plugged win10 1",
     "",
     "✓ usb 046d:0825 is plugged in at 1-2, and its node can be opened"},
    {{},
     "win10 1",
     "",
     "– line calls go through the broker, as ZQBUS_DIRECT=0 asks",
     0,
     {{"ZQBUS_DIRECT", "0"}}},
    {{"service fault set getVmList crash"},
     "win10 1",
     "answer the service perix died before it answered → look at the service's log, and start it "
     "again",
     "",
     8},
};

/// Runs commands; "!" stands before a command that fails, and "-awaits WORD" before a command that
/// is repeated until its output has the word.
void plant(const ToolWorld& world, const std::vector<std::string>& commands) {
  constexpr std::string_view kAwaits = "-awaits ";
  for (const std::string& command : commands) {
    if (command.starts_with(kAwaits)) {
      const auto space = command.find(' ', kAwaits.size());
      const std::string word = command.substr(kAwaits.size(), space - kAwaits.size());
      while (world.run(command.substr(space)).output.find(word) == std::string::npos) {
      }
      continue;
    }
    const bool fails = command.starts_with("! ");
    EXPECT_EQ(world.run(command.substr(fails ? 2 : 0)).status != 0, fails) << command;
  }
}

TEST(TheAnswerToWhy, NamesEachCauseThatIsPlantedInTheModel) {
  const ToolWorld world;
  const fs::path root = world.directory() / "roots";
  fs::create_directories(root / "empty/sys/bus/usb/devices");
  plugInto(root / "nodeless", false);
  plugInto(root / "plugged", true);
  const auto inRoot = [&](std::string text) {
    for (auto at = text.find("$ROOT"); at != std::string::npos; at = text.find("$ROOT")) {
      text.replace(at, 5, root);
    }
    return text;
  };
  for (const ModelCause& row : kModelCauses) {
    SCOPED_TRACE(row.words + " " + row.cause);
    plant(world, {"service reload", "service fault clear"});
    plant(world, row.plant);
    Environment environment = kUtf8;
    environment.insert(row.environment.begin(), row.environment.end());
    const auto before = world.run("--json service state").output;
    const auto result = world.run("device why " + inRoot(row.words), environment);
    expectCause(result, row.status, inRoot(row.cause));
    EXPECT_NE(withoutSpaces(result.output).find(row.line), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("nothing stands in the way") != std::string::npos,
              row.status == 0);
    if (row.status == 8) break;  // the service is gone
    EXPECT_EQ(world.run("--json service state").output, before);
  }
}

TEST(TheAnswerToWhy, NamesANodeThatThisUserMayNotOpen) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may open every node";
  const ToolWorld world;
  plugInto(world.directory(), true);
  fs::permissions(world.directory() / "dev/bus/usb/001/004", fs::perms::none);
  const auto result =
      world.run("device why --root " + world.directory().string() + " win10 1", kUtf8);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(causeIn(result.output).find("001/004: Permission denied"), std::string::npos)
      << result.output;
}

TEST(TheAnswerToWhy, IsADocumentToo) {
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

/// A socket where each connection is closed, or where none is answered.
class OddBus {
 public:
  OddBus(const fs::path& directory, bool closes) : path_(directory / "odd") {
    sockaddr_un name{.sun_family = AF_UNIX};
    path_.string().copy(name.sun_path, sizeof name.sun_path - 1);
    if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 ||
        ::listen(socket_.get(), 8) != 0) {
      throw std::runtime_error("no socket");
    }
    if (closes) closer_ = std::thread([this] { closeAll(); });
  }
  ~OddBus() {
    ::shutdown(socket_.get(), SHUT_RDWR);
    if (closer_.joinable()) closer_.join();
    fs::remove(path_);
  }
  OddBus(const OddBus&) = delete;
  OddBus& operator=(const OddBus&) = delete;

  std::string address() const { return "unix:path=" + path_.string(); }

 private:
  /// Reads the greeting first, as a proxy does.
  void closeAll() {
    for (;;) {
      const OwnedDescriptor client(::accept(socket_.get(), nullptr, nullptr));
      if (!client) return;
      char byte;
      (void)::recv(client.get(), &byte, 1, 0);
    }
  }

  const fs::path path_;
  const OwnedDescriptor socket_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::thread closer_;
};

TEST(TheAnswerToWhy, NamesABusThatCannotBeUsedAndAServiceThatIsNotThere) {
  const PrivateBus bus;
  PrivateBus deadBus;
  deadBus.kill();
  const fs::path& directory = bus.directory();
  const Environment none = {
      {"DBUS_SESSION_BUS_ADDRESS", ""}, {"XDG_RUNTIME_DIR", ""}, {"XDG_STATE_HOME", directory}};
  const std::string elsewhere =
      " → the address comes from ZQBUS_ADDRESS: set it to a bus that runs and admits this user";
  const std::string missing = "unix:path=" + directory.string() + "/missing";
  PrivateBus guardedBus;
  const std::string socket = guardedBus.address().substr(guardedBus.address().find('=') + 1);
  fs::permissions(socket, fs::perms::none);
  const OddBus closing(directory, true);
  std::vector<std::pair<std::string, std::string>> rows = {
      {bus.address(),
       "service nobody owns org.zqbus.perix on this bus → start the service (to try things out: "
       "perix-devservice)"},
      {deadBus.address(),
       "bus cannot reach the bus at " + deadBus.address() + ": Connection refused" + elsewhere},
      {missing,
       "bus cannot reach the bus at " + missing + ": No such file or directory" + elsewhere},
      {"session", "bus the address of the bus is not valid: session" + elsewhere},
      {"",
       "bus no bus is named: neither ZQBUS_ADDRESS nor DBUS_SESSION_BUS_ADDRESS nor "
       "XDG_RUNTIME_DIR is set → start a session bus (dbus-run-session), or set ZQBUS_ADDRESS"},
      {closing.address(), "bus the bus at " + closing.address() +
                              " closed the connection during the authentication (Connection reset "
                              "by peer), as a bus proxy does that takes no pipelined "
                              "authentication" +
                              elsewhere},
  };
  if (::geteuid() != 0) {
    rows.emplace_back(guardedBus.address(), "bus cannot reach the bus at " + guardedBus.address() +
                                                ": Permission denied" + elsewhere);
  }
  for (const auto& [address, cause] : rows) {
    Environment environment = none;
    environment.insert(kUtf8.begin(), kUtf8.end());
    expectCause(runPerixctlOn(address, "device why win10 1", environment), 8, cause);
    expectCause(runPerixctlOn(address, "doctor", environment), 8, cause);
  }
}

TEST(TheAnswerToWhy, NamesAServiceThatTheBusCanStartAndDoesNotStartIt) {
  PrivateBus bus;
  fs::create_directories(bus.directory() / "services");
  std::ofstream(bus.directory() / "services/org.zqbus.perix.service")
      << "[D-BUS Service]\nName=org.zqbus.perix\nExec=/usr/bin/touch "
      << (bus.directory() / "started").string() << '\n';
  bus.restart();  // a bus reads its activation files when it starts
  expectCause(runPerixctlOn(bus.address(), "device why win10 1", kUtf8), 8,
              "service nobody owns org.zqbus.perix on this bus, which can start the service → the "
              "next call starts it, unless ZQBUS_ACTIVATE=0: perixctl service status");
  EXPECT_FALSE(fs::exists(bus.directory() / "started"));
}

TEST(TheAnswerToWhy, NamesABusThatDoesNotAnswer) {
  const PrivateBus bus;
  const OddBus silent(bus.directory(), false);
  const auto result = runPerixctlOn(silent.address(), "device why win10 1", kUtf8);
  EXPECT_EQ(result.status, 8);
  EXPECT_TRUE(withoutSpaces(causeIn(result.output))
                  .starts_with("bus the bus at " + silent.address() + " does not answer →"))
      << result.output;
}

TEST(TheAnswerToWhy, NamesAServiceThatHangs) {
  ToolWorld world;
  world.service.pause();
  const auto result = world.run("device why win10 1", kUtf8);
  const std::string process = std::to_string(world.service.processId()) + " (perix-devservice)";
  expectCause(result, 1,
              "answer the service hangs: no answer within 3000 ms → look at process " + process +
                  " and its log, or restart it");
}

TEST(TheAnswerToWhy, NamesAServiceOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start a service of another user";
  const OpenBus bus;
  ChildProcess::Options options;
  options.arguments = {"setpriv", "--reuid=65534", "--clear-groups", DEVSERVICE, "--ready-fd",
                       "3",       "--scenario",    SCENARIO};
  options.environment = {{"ZQBUS_ADDRESS", bus.address}};
  options.readiness = true;
  ChildProcess service(options);
  ASSERT_TRUE(service.readinessLine(std::chrono::seconds(30)));
  const auto result = runPerixctlOn(bus.address, "device why win10 1", kUtf8);
  EXPECT_EQ(result.status, 8);
  EXPECT_TRUE(withoutSpaces(causeIn(result.output))
                  .starts_with("user the service runs as user nobody, and clients trust this user "
                               "and root alone → run the service as"))
      << result.output;

  // Over ssh this process is the user of the login, whom the service trusts, and who trusts it.
  const fs::path login = fs::path(bus.address.substr(bus.address.find('=') + 1)).parent_path();
  std::ofstream(login / "ssh")
      << "#!/bin/sh\nshift 3; exec setpriv --reuid=65534 --clear-groups sh -c \"$*\"\n";
  fs::permissions(login / "ssh", fs::perms::owner_all);
  Environment environment = kUtf8;
  environment["PATH"] = login.string() + ':' + std::getenv("PATH");
  environment["DBUS_SESSION_BUS_ADDRESS"] = bus.address;
  const auto remote =
      runPerixctlOn(bus.address, "--host nobody@box device why win10 1", environment);
  EXPECT_NE(withoutSpaces(remote.output).find("✓ user the service runs as this user"),
            std::string::npos)
      << remote.output << remote.error;
}

TEST(TheAnswerToWhy, TellsThatTheServiceHasNoLineToSpare) {
  constexpr std::size_t kFarMoreThanThereAre = 10'000;
  const ToolWorld world;
  ::setenv("ZQBUS_ADDRESS", world.service.busAddress().c_str(), 1);
  std::vector<std::shared_ptr<ZQBusProxyInterface>> lines;
  do {
    lines.push_back(ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
        "perix", ZQBusSecurityFlags::TrustedPeer, 1));
    ASSERT_LT(lines.size(), kFarMoreThanThereAre);
  } while (lines.back()->way() == ZQBusWay::Direct);
  const auto result = world.run("device why win10 1", kUtf8);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(withoutSpaces(result.output)
                .find("– line calls go through the broker: the service gave no direct line"),
            std::string::npos)
      << result.output;
}

// --- doctor --------------------------------------------------------------------------------------

TEST(TheDoctor, NamesEachFaultWithItsRemedy) {
  ToolWorld world;
  struct Row {
    std::string words;
    Environment environment;
    int status;
    std::string line;
  };
  const Row rows[] = {
      {"doctor", {}, 0, "✓ daemon process "},
      {"doctor", {}, 0, "; the service: version 7"},
      {"doctor",
       {{"XDG_STATE_HOME", "/dev/null"}},
       1,
       "✗ log there is no directory for the log → set XDG_STATE_HOME to a directory of this user"},
      {"service run -- prlimit --nofile=100 " PERIXCTL " doctor",
       {},
       1,
       "of 100 descriptors open → raise ulimit -n"},
  };
  for (const Row& row : rows) {
    Environment environment = kUtf8;
    environment.insert(row.environment.begin(), row.environment.end());
    const auto result = world.run(row.words, environment);
    EXPECT_EQ(result.status, row.status) << result.output;
    EXPECT_NE(withoutSpaces(result.output).find(row.line), std::string::npos)
        << row.line << '\n'
        << result.output << result.error;
  }
}

}  // namespace
}  // namespace zq::ctl
