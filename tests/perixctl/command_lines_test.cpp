// Every command, run as a user would, against the real service.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <map>
#include <set>
#include <sstream>

#include "perix/service_methods.h"
#include "tests/perixctl/tool_world.h"
#include "tests/support/process.h"
#include "tests/support/token.h"
#include "tests/support/watched.h"
#include "tools/embedded/private_bus.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_line.h"
#include "tools/perixctl/completion.h"
#include "tools/perixctl/help.h"

namespace zq::ctl {
namespace {

struct Line {
  const char* words;
  int exitCode;
  /// Stands somewhere in standard output, or in standard error when the command fails as text.
  const char* expected;
  /// The last call that the service saw, and answered with 0; null for any.
  const char* call = nullptr;
};

// One after the other in one world, so each may build on those before.
const std::vector<Line> kLines = {
    // Desktops.
    {"desktop list", 0, "DESKTOP  ID  DEVICES  PRINTERS\ndebian   2   -        -\n"},
    {"desktop list --json", 0, R"([{"desktop":"debian","id":2,"devices":[],)"},
    {"--json desktop connect debian --system-type 3 --share-mode 1 --connect-param 9", 0,
     R"({"result":0})"},
    {"desktop start debian", 0, "desktop start: sent"},
    {"desktop focus debian 0x10 on", 0, "done"},
    {"desktop disconnect debian", 0, "sent"},
    {"desktop connect win12", 10, "no desktop is called 'win12'"},
    // Devices.
    {"device list", 0, "Desk camera  camera    idle     -        ask     046d:0825  4294967297"},
    {"device connect win10 1", 0, "done", "connectDevice [1, 1]"},
    {"device list win10 --json", 0, R"("connected":true,"vmId":1,"desktop":"win10")"},
    {"device connect win10 1", 1, "already connected to this desktop (result 4)"},
    {"device connect win10 1 --json", 1, R"("exitCode":1,"text":"the service refused: already)"},
    {"device connect debian 2", 1, "the desktop is not connected"},
    {"device connect win10 77", 10, "unknown device"},
    {"device connect win10", 2, "give exactly one of DEVICE or --source-id"},
    {"device connect win10 65536 --json", 10, R"("result":2)"},
    {"device disconnect win10 1", 0, "done"},
    {"device connect win10 --source-id 0x100000001", 0, "done"},
    {"device disconnect win10 --source-id 4294967297", 0, "done"},
    {"device connect win10 'desk CAMERA'", 0, "done", "connectDevice [1, 1]"},
    {"device disconnect win10 0x100000001", 0, "", "disconnectDeviceBySrcId [1, 4294967297]"},
    {"device connect win10 Stikc", 10, "no device is called 'Stikc'; did you mean 'Stick'?"},
    {"device redirect win10 Stick in", 0, "done", "redirectDevice [1, 2, 1]"},
    {"desktop list", 0, "win10    1   Stick    -"},
    {"device status Stick", 0, "connected"},
    {"device status 2 --json", 0, R"("devNumber":2,"name":"Stick")"},
    {"device status 99", 10, "no device 99"},
    {"device autoconnect set camera on", 0, "done", "setAutoConnect [0, 3, 1]"},
    {"device autoconnect get camera", 0, "camera connect by themselves: on"},
    {"device network add 4 scan@10.0.0.9", 0, "done"},
    {"device network remove scan ''", 0, "done"},
    {"device usbredir set win10 0102030405060708 1", 0, "done"},
    {"device usbredir connect win10 0102030405060708", 0, "done"},
    {"device usbredir disconnect win10 0102030405060708", 0, "done"},
    {"device usbredir set win10 01020304 1", 2, "eight bytes"},
    {"device usbredir set win10 01020304050607089 1", 2, "eight bytes"},
    {"device configure win10 4 --type scanner --no-popup", 0, "",
     "configNewDeviceAsConnect [1, 0400000001000000, 4, 0, 0]"},
    {"device ignore 'New audio' --no-popup", 0, "",
     "configNewDeviceAsIgnore [0500000001000000, 0, 0, 0]"},
    {"device ignore 0x100000002", 1, "does not wait for its configuration"},
    {"disk command win10 Stick mount", 0, "", "ConfigUdisks2Command [1, 0200000001000000, 1]"},
    {"disk command win10 0x100000001 1", 1, "not a disk"},
    {"device why win10 'Desk camera'", 0, "nothing stands in the way"},
    {"doctor", 0, "nothing stands in the way"},
    // Printers.
    {"printer list", 0, "1       Front office  idle"},
    {"printer connect win10 'Front office'", 0, "done", "connectPrinter [1, 1]"},
    {"printer list win10 --json", 0, R"("status":2,"state":"connected")"},
    {"printer disconnect win10 1", 0, "done"},
    {"printer status 1", 0, "Front office"},
    {"printer command win10 1 1", 0, "done"},
    {"printer command win10 1 resume", 0, "", "ConfigPrinterCommand [1, 0100000000000000, 2]"},
    {"printer summary", 0, "1       Front office  local   idle    Laser"},
    {"printer network add 10.0.0.7", 0, "done"},
    {"printer network add 10.0.0.8 Copy 'third floor'", 0, "done"},
    {"printer network list", 0, "Copy"},
    {"printer network rename Copy Copier", 0, "done"},
    {"printer network delete Copier", 0, "done"},
    {"printer network add ''", 2, "'' is not a text of a character or more"},
    {"printer shared search 10.0.0.5", 0, "Hall    10.0.0.5  second floor\nStairs  10.0.0.5  A3\n"},
    {"printer shared search 10.0.0.6", 10, "host not found"},
    {"printer shared search 10.0.0.05", 2, "is not an address"},
    {"printer shared stop", 1, "nothing to stop"},
    {"printer shared add 10.0.0.5 Hall 'second floor'", 0, "done"},
    {"printer shared delete 10.0.0.5 Hall", 0, "done"},
    {"printer local add Desk usb:1 Laser", 0, "done"},
    {"printer local add Desk2 usb:1 Ink", 10, "unknown driver"},
    {"printer local auto-add Desk3 usb:2 ''", 0, "done"},
    {"printer driver list laser", 0, "NAME   MAKER\nLaser  Maker\n"},
    {"printer driver change Desk Laser", 0, "done"},
    {"printer test-page Desk", 0, "done"},
    {"printer local delete Desk", 0, "done"},
    // Channels.
    {"pipe create win10 1:2:a:b 3:4:c:d", 0, "done"},
    {"service state", 0, R"("label1": "a")"},
    {"pipe destroy win10 1:2:a:b", 0, "done"},
    {"pipe destroy win10 9:9:x:y", 10, "unknown pipe"},
    {"pipe create win10 1:2:a", 2, "PARAM1:PARAM2:LABEL1:LABEL2"},
    {"port status win10 2 -- -1", 0, "done"},
    // Traces.
    {"trace " TRACE, 0,
     R"(connected to perix (:1.0) direct
getVmListSize(name="office-1") = 1   0.30 ms direct
connectDevice(desktop=1 "office-1", device=8) = 7 forbidden by the device's policy   0.41 ms direct
connectDevice(desktop=1 "office-1", device=9) = failed: timed out after 3000 ms   3000.00 ms broker
event perixevent(desktop=1 "office-1", kind=6 arrived, payload=0001020304050607...[300]) direct
)"},
    {"trace --filter connectDevice --slower 1000 " TRACE " | grep --count .", 0, "1"},
    {"trace --failures " TRACE " | grep --count connectDevice", 0, "2"},
    {"trace --summary " TRACE, 0, "connectDevice  2      2         3000"},
    {"trace /etc/passwd", 2, "/etc/passwd:1: not JSON from byte 1 on"},
    {"snapshot", 0, "# - whether a disk is mounted"},
    {"snapshot /dev/full", 1, "/dev/full cannot be written: No space left on device"},
    {"--trace device connect win10 99", 10, "connectDevice(desktop=1 \"win10\", device=99) = 2 "},
    {"pen replay --fast " STROKE, 0, "     2  press    0x26003     60     78     0.350"},
    {"token update <<< kept-from-view", 0, "done"},
    {"token update --file <(echo kept-from-view)", 0, "done"},
    {"token update < /dev/null", 2, "the token is empty"},
    {"token update --file /tmp", 2, "cannot read /tmp: Is a directory"},
    {"token update < <(printf '%065536d\\r\\n' 0)", 0, "done"},
    {"token update <<< $(printf '%065537d' 0)", 2, "more than 65536 bytes"},
    {"token update < <(head -c 70000 /dev/zero)", 2, "more than 65536 bytes"},
    {"quality bandwidth win10 1000 2000", 0, "sent"},
    {"quality rtc win10 1 7", 0, "sent"},
    // Policies and properties.
    {"policy list", 0, "045e:028e  allow   A gamepad of many buttons\n"},
    {"policy set 1 forbid", 0, "", R"(setLocalPolicy [1, 2, "Desk camera", "front"])"},
    {"policy set 1 forbit", 2, "did you mean 'forbid'?"},
    {"device disconnect win10 1", 0, "done"},
    {"device connect win10 1", 1, "forbidden by the device's policy"},
    {"property set 046d:0825 7 -- -2", 0, "done"},
    {"property get 046d:0825 7", 0, "value  -2"},
    {"property get 046d:0825 7 --local", 0, "value  5"},
    {"property reset", 0, "done"},
    {"property get 046d:0825 7", 0, "value  5"},
    {"property get 46d:825 7", 2, "vendor and product"},
    {"turbo set 046d:0825 fps=60", 0, "done"},
    {"turbo get 046d:0825", 0, "fps=60\n"},
    {"turbo get 1111:2222", 0, "no turbo configuration\n"},
    {"camera status", 0, "cameras are authorised"},
    {"joystick list", 0, "Gamepad"},
    {"joystick mapping set 045e:028e b=2", 0, "done"},
    {"joystick mapping get 045e:028e --json", 0, R"({"text":"b=2"})"},
    {"joystick calibrate 045e:028e", 0, "done"},
    // What the service says about itself.
    {"diagnose desktop win10", 0, "80       measuring the transfer\n100      no fault found\n"},
    {"diagnose device win10 0x3039", 10, "unknown device (result 2)"},
    {"diagnose device win10 1 --json", 0, R"("valueText":"4294967297")",
     "diagnoseDevice [1, 4294967297]"},
    {"command run version", 0, "version 7\n"},
    {"command run break", 1, "the command failed: broken"},
    {"command run nonsense", 10, "unknown command"},
    {"command help", 0, "version  says the version"},
    {"test run selftest", 0, "done"},
    {"test run hopeless", 1, "exists already"},
    {"test run nonsense", 10, "unknown test (result 18)"},
    {"service status --json", 0, R"({"running":true,"desktops":2,"controlInterface":true})"},
    {"service reset", 0, "done"},
    // The development service.
    {"service plug type=camera name='Second camera'", 0, "devNumber"},
    {R"(service plug name=$'\e[31mred')", 0, "devNumber"},
    {"device list", 0, R"(\x1b[31mred)"},
    {"service plug type=scanner name='desk camera'", 0, "devNumber"},
    {"device status 'desk camera'", 0, "desk camera"},
    {"device status 'DESK CAMERA'", 10, "2 devices are called 'DESK CAMERA': give a number"},
    {"service plug name=x type=teapot", 2, "'type=teapot': type is one of: usb"},
    {"service plug type=camera", 2, "perixctl: name is missing"},
    {"service plug sourceId=0xffffffffffffffff vid=46D pid=0x825 name=F", 0,
     "18446744073709551615"},
    {"device list", 0, "046d:0825  18446744073709551615"},
    {"service plug name=x bogus=1", 2, "'bogus=1': unknown key"},
    {"service plug name=x name=y", 2, "'name=y': given twice"},
    {R"(service plug name=$'x\xff')", 2, "not UTF-8"},
    {"service unplug 'Second camera'", 0, "done"},
    {"service unplug 66", 10, "unknown device (result 2)"},
    {"service print 'Front office' letter", 0, "done"},
    {"service print 99 letter", 10, "unknown printer"},
    {"service event 1 6 0102", 0, "done"},
    {"service event 1 arrived", 0, "done"},
    {"service event 1 arived", 2, "did you mean 'arrived'?"},
    {"service broadcast 1 64", 0, "done"},
    {"service state --json", 0, R"("sourceIdText":"4294967297")"},
    {"service fault set wrong error", 1, "no method wrong; there are: CheckCameraAuthStat, Config"},
    {"service fault set getVmList slow", 1,
     "no fault is called slow; there are: delay, late, error"},
    {"service fault set getVmList delay", 2, "'delay' needs a VALUE"},
    {"service fault set getVmList delay -- -1", 1, "delay takes a value from 0 to 3600000"},
    {"service fault set getVmList flood 300001", 1, "flood takes a value from 0 to 300000"},
    {"service fault set getVmList delay 1 -- -1", 1, "the count is 0, until cleared, or more"},
    {"service fault set getVmListSize drop 0 1", 0, "drop"},
    {"desktop start win10", 3, "no answer within"},
    {"service fault set getVmListSize error 0 1", 0, "error"},
    {"desktop start win10", 1, "injected fault"},
    {"service calls", 0, "error: injected fault"},
    {"service fault set onFocusChanged drop 0 1", 0, "onFocusChanged"},
    {"service fault list --json", 0, R"([{"method":"onFocusChanged","kind":"drop")"},
    {"desktop focus win10 1 off", 3, "no answer within"},
    {"service fault set getVmList error 0 1", 0, "getVmList"},
    {"desktop list --json", 1, R"({"error":{"kind":"refused","exitCode":1)"},
    {"service fault set getDeviceList short-record 5", 0, "short-record"},
    {"device list --json", 0, R"("devNumber":1,"name":"")"},
    {"service fault set getDeviceList short-record 10", 0, "short-record"},
    {"device list", 0, "1             camera    idle     -        ask     046d:0825  0\n"},
    {"service fault set getPrinterList short-record 24", 0, "short-record"},
    {"printer list --json", 0, R"("name":"Front of")"},
    {"service fault clear", 0, "done"},
    {"service calls --json", 0, R"("method":"updateDriveToken")"},
    {"service reload", 0, "done"},
    // The tool itself.
    {"--version", 0, "perixctl "},
    {"", 2, "required"},
    {"device bogus --json", 2, R"({"error":{"kind":"usage","exitCode":2)"},
    {"device conect", 2, "did you mean 'device connect'? (perixctl device --help)"},
    {"dev netw --help", 0, "Usage: perixctl device network COMMAND"},
    {"dev li --no-headings --fields number,sourceIdText", 0, "1  4294967297\n"},
    {"device --fields nonsense", 2, "no field 'nonsense'"},
    {"d", 2, "may be any of desktop, doctor, device, disk, diagnose"},
    {"device list --jsn", 2, "did you mean '--json'?"},
    {"device connect win10 1 2", 2, "'2' is too much; usage: perixctl device connect"},
    {"--quiet policy set 1 allow | wc -c", 0, "0\n"},
    {"device list > /dev/full", 1, "the output cannot be written: No space left on device"},
    {"device list >&-", 1, "the output cannot be written: Bad file descriptor"},
    {"monitor > /dev/full", 1, "cannot be written"},
    {"--timeout 20 complete -- device connect win10 'De'", 0, "Desk camera\tnumber 1\n"},
    {"--timeout 20 complete -- printer driver change x L", 0, "Laser\tMaker\n"},
    {"--timeout 20 complete -- policy set 1 f", 0, "forbid\t\n"},
    {"--timeout 20 complete -- service fault set getVmL", 0, "getVmListSize\t\n"},
    {"completion bash", 0, "complete -F _perixctl perixctl"},
    {"completion zsh", 0, "compdef"},
    {"completion fish", 0, "complete -c perixctl"},
    {"man | man -l - | cat", 0, "device autoconnect set TYPE SWITCH"},
    {"service run -- bash -c 'echo $ZQBUS_ADDRESS; exit 7'", 7, ""},
    {"service run -- bash -c '" PERIXCTL " service stop && ! " PERIXCTL " device list 2>&1'", 0,
     "nobody owns org.zqbus.perix"},
    {"service run -- bash -c '" PERIXCTL " service crash && ! " PERIXCTL " device list 2>&1'", 0,
     "nobody owns org.zqbus.perix"},
    {"service run -- env --ignore-signal=CHLD " PERIXCTL " service run -- sh -c 'exit 7'", 7, ""},
    {"service run -- /nonexistent", 127, "cannot run '/nonexistent'"},
    {"service run -- ''", 127, "cannot run '': No such file or directory"},
    {"--embedded=" SCENARIO " desktop list", 0, "win10"},
    {"--embedded=/nonexistent desktop list", 2, "perixctl: /nonexistent:1:1: cannot be read\n"},
    {"monitor --for 0", 0, ""},
    {"monitor --count 1 --ready-fd 99", 2, "descriptor 99"},
    {"service clear-calls", 0, "done"},
    {"service fault set getVmList crash", 0, "crash"},
    {"desktop list", 8, "the service perix died before it answered"},
};

void check(const ToolWorld& world, const Line& line) {
  const ChildProcess::Result result = world.run(line.words);
  const bool isJson = std::string_view(line.words).find("--json") != std::string_view::npos;
  SCOPED_TRACE("perixctl " + std::string(line.words) + "\nstdout: " + result.output +
               "\nstderr: " + result.error);
  EXPECT_EQ(result.status, line.exitCode);
  const std::string& said = line.exitCode == 0 || isJson ? result.output : result.error;
  EXPECT_NE(said.find(line.expected), std::string::npos) << "missing: " << line.expected;
  if (isJson) {
    EXPECT_FALSE(Json::parse(result.output, nullptr, false).is_discarded()) << "not one document";
    EXPECT_EQ(result.error, "");
  }
  if (line.call != nullptr) {
    const std::string calls = "\n" + world.succeed("service calls --fields call");
    EXPECT_TRUE(calls.ends_with("\n" + std::string(line.call) + " → 0\n")) << calls;
  }
}

TEST(CommandLines, ReachEachMethodAndEndWithTheirCodes) {
  const ToolWorld world;
  std::set<std::string> called;
  if (!kSanitized) {  // the sanitizers need descriptors
    check(world,
          {"service run -- bash -c 'exec 3</dev/null; ulimit -n 5; " PERIXCTL " device list'", 1,
           "cannot watch for signals: Too many open files"});
  }
  for (const Line& line : kLines) {
    if (std::string_view(line.words) == "service clear-calls") {
      for (const Json& call : Json::parse(world.succeed("--json service calls"))) {
        called.insert(call.at("method"));
      }
    }
    check(world, line);
  }
  for (const ServiceMethod& method : kServiceMethods) {
    EXPECT_EQ(called.count(method.name), 1U) << method.name << " is not reached";
  }
}

// Behind "--json " too. A stopped search needs one that runs.
bool isRunWithSuccess(const Command& command) {
  return std::any_of(kLines.begin(), kLines.end(), [&](const Line& line) {
    const bool refusal = line.exitCode == 1 && command.words == "printer shared stop";
    const bool run = line.exitCode == 0 || line.exitCode == 7 || refusal;
    return run && (" " + std::string(line.words) + " ").find(" " + command.words + " ") !=
                      std::string::npos;
  });
}

std::vector<std::string> wordsOf(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream rest(line);
  for (std::string word; rest >> std::quoted(word, '\'');) words.push_back(word);
  return words;
}

TEST(CommandTable, AgreesWithParserHelpManualAndTests) {
  std::map<std::string, bool> optionTakesValue;
  std::string manual = manualPage();
  std::erase(manual, '\\');
  for (const Command& command : commandTable()) {
    SCOPED_TRACE(command.words);
    EXPECT_TRUE(isRunWithSuccess(command)) << "no line above runs it";
    std::vector<std::string> example = wordsOf(exampleOf(command));
    example.erase(example.begin());
    EXPECT_EQ(parseCommandLine(example).command, &command) << exampleOf(command);
    const std::string help = helpFor(command.words);
    for (const Argument& argument : command.arguments) {
      EXPECT_NE(help.find("\n  " + argument.name), std::string::npos) << argument.name;
      if (!argument.isOption()) continue;
      // The parser tells options from values before it knows the command.
      const auto known = optionTakesValue.try_emplace(argument.name, argument.takesValue()).first;
      EXPECT_EQ(known->second, argument.takesValue()) << argument.name;
    }
    if (command.hidden) continue;
    EXPECT_NE(manual.find("fB" + command.words + "fR"), std::string::npos) << "not in the manual";
    EXPECT_FALSE(candidatesFor(wordsOf(command.words)).empty()) << "not offered";
  }
}

// Bash reads what stands on its command line after the completion.
TEST(Completion, QuotesNamesForBash) {
  const ToolWorld world;
  const std::string name = R"(Evil'"$(echo run)`echo run`!x\y&)";
  const Environment environment = {{"NAME", name}, {"BASH_SCRIPT", R"(
    perixctl() { ")" PERIXCTL R"(" --timeout 20 "$@"; }
    for quote in '"' "'" ''; do
      COMP_WORDS=(perixctl device status "${quote}Evil") COMP_CWORD=3
      _perixctl
      eval "printf '%s\n' $quote${COMPREPLY[0]}$quote"
    done)"}};
  ASSERT_EQ(world.run(R"(service plug name="$NAME")", environment).status, 0);
  const auto read = world.run(
      R"(completion bash | bash -c 'source /dev/stdin; eval "$BASH_SCRIPT"')", environment);
  EXPECT_EQ(read.output, name + '\n' + name + '\n' + name + '\n') << read.error;
}

TEST(CommandLines, SayAtOnceThatServiceIsMissing) {
  const PrivateBus bus;
  PrivateBus deadBus;
  deadBus.kill();
  const std::pair<std::string, std::string> rows[] = {
      {bus.address(), "nobody owns org.zqbus.perix on the bus at " + bus.address() + ".\n"},
      {deadBus.address(),
       "cannot reach the bus at " + deadBus.address() + ": Connection refused.\n"},
  };
  for (const auto& [address, text] : rows) {
    for (const char* words : {"device list", "monitor", "desktop start win10", "token update <<< x",
                              "diagnose desktop win10"}) {
      const auto start = std::chrono::steady_clock::now();
      const ChildProcess::Result result = runPerixctlOn(address, words);
      EXPECT_EQ(result.status, 8) << words;
      EXPECT_EQ(result.output, "") << words;
      EXPECT_TRUE(result.error.starts_with("perixctl: " + text)) << result.error;
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << words;
    }
    const Json document = Json::parse(runPerixctlOn(address, "--json device list").output);
    EXPECT_EQ(document["error"]["kind"], "no-service");
    EXPECT_EQ(runPerixctlOn(address, "service state").status, 8);
  }
}

TEST(DriveToken, StandsInNoOutputOfTool) {
  ToolWorld world;
  world.service.stop();
  ChildProcess::Options options;
  options.arguments = {DEVSERVICE, "--ready-fd", "3"};
  options.environment = {{"ZQBUS_ADDRESS", world.service.busAddress()},
                         {"ZQBUS_TRACE", world.directory() / "service.trace"}};
  options.readiness = true;
  ChildProcess service(options);
  ASSERT_TRUE(service.readinessLine(kPatience));
  const std::string secret = kDriveToken;
  const std::string trace = world.directory() / "tool.trace";
  std::string all;
  for (const std::string& words :
       {"--verbose token update <<< " + secret, "--trace --json token update <<< " + secret,
        std::string("service calls"), std::string("service state"), "trace " + trace}) {
    const ChildProcess::Result result = world.run(words, {{"ZQBUS_TRACE", trace}});
    EXPECT_EQ(result.status, 0) << words;
    all += result.output + result.error;
  }
  EXPECT_EQ(all.find(secret), std::string::npos) << all;
  EXPECT_EQ(all.find(kDriveTokenInHex), std::string::npos) << all;
  EXPECT_NE(all.find("updateDriveToken [14 bytes] → 0"), std::string::npos) << all;
  EXPECT_NE(all.find("\"tokenLength\": 14"), std::string::npos) << all;
  EXPECT_NE(all.find("updateDriveToken(token=secret) = 0"), std::string::npos) << all;
  // The files are searched at the end of the world.
  EXPECT_FALSE(std::filesystem::is_empty(trace));
}

TEST(Trace, IsThatOfClientAndNotOfEmbeddedService) {
  const ToolWorld world;
  const std::string trace = world.directory() / "tool.trace";
  for (const char* words :
       {"--embedded token update <<< x", "service run -- " PERIXCTL " token update <<< x"}) {
    std::filesystem::remove(trace);
    EXPECT_EQ(world.run(words, {{"ZQBUS_TRACE", trace}}).status, 0);
    const Json summary = Json::parse(world.succeed("--json trace --summary " + trace));
    ASSERT_EQ(summary.size(), 1U) << words;
    EXPECT_EQ(summary[0]["calls"], 1) << words;
  }
}

}  // namespace
}  // namespace zq::ctl
