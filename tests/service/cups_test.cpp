// The service with a CUPS server behind it: real queues, and pages that arrive on a printer. Both
// are the test's own; the machine's are never touched.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "perix/perix_proxy.h"
#include "perix/service_values.h"
#include "testing/control_client.h"
#include "tests/support/bus_world.h"

namespace zq {
namespace {

namespace fs = std::filesystem;

// '@' stands for the directory.
constexpr char kServerSettings[] = R"(Listen @/cups.sock
Browsing Off
WebInterface No
DefaultAuthType None
<Location />
  Order allow,deny
  Allow all
</Location>
<Policy default>
  <Limit All>
    Order deny,allow
  </Limit>
</Policy>
)";
constexpr char kServerFiles[] = R"(FatalErrors none
ServerRoot @
RequestRoot @/spool
TempDir @/spool/tmp
CacheDir @/cache
StateDir @/state
ErrorLog stderr
AccessLog /dev/null
PageLog /dev/null
)";

bool comesTrue(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string cupsd() {
  // Not in everybody's PATH.
  constexpr char kUsual[] = "/usr/sbin/cupsd";
  return ::access(kUsual, X_OK) == 0 ? kUsual : findInPath("cupsd");
}

sockaddr_in loopback(uint16_t port) {
  return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

uint16_t freePort() {
  const OwnedDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(::bind(socket.get(), generic, size), 0);
  EXPECT_EQ(::getsockname(socket.get(), generic, &size), 0);
  return ntohs(address.sin_port);
}

/// Starts a program that does not say when it is ready, and waits until it answers at the address.
template <typename Address>
std::unique_ptr<ChildProcess> start(ChildProcess::Options options, const Address& address) {
  options.output = ChildProcess::Stream::Discard;
  options.error = ChildProcess::Stream::Capture;
  auto child = std::make_unique<ChildProcess>(options);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const bool up = comesTrue([&] {
    const OwnedDescriptor probe(::socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return !child->running() || ::connect(probe.get(), generic, sizeof address) == 0;
  });
  EXPECT_TRUE(up && child->running()) << child->errorText();
  return child;
}

/// A cupsd without printers that lets anybody do anything, and a printer that speaks IPP on a
/// loopback port and keeps, as files, the PDF documents that it gets.
class CupsServer : public testing::Test {
 protected:
  void SetUp() override {
    if (cupsd().empty()) GTEST_SKIP() << "there is no cupsd (package cups)";
    if (findInPath("ippeveprinter").empty()) GTEST_SKIP() << "no ippeveprinter (cups-ipp-utils)";
    // When root starts it, cupsd has another user do its work.
    fs::permissions(directory, fs::perms::group_exec | fs::perms::others_exec,
                    fs::perm_options::add);
    startDaemon();
    startPrinter();
    service = startService({"--cups", directory / "cups.sock"});
    proxy = PerixProxy::getInstance();
    // After an earlier case's service, the library looks for the next one every two seconds.
    ASSERT_TRUE(comesTrue([this] { return !proxy->SearchAllPrinter().empty(); }));
    EXPECT_TRUE(localPrinters().empty()) << "the scenario's are not those of the machine";
    ASSERT_EQ(proxy->AutoAddPrinter(kName, uri, ""), 0);
  }
  void TearDown() override {
    service.reset();
    printer.reset();
    if (daemon != nullptr) {
      for (const int number : {SIGCONT, SIGTERM}) daemon->signal(number);  // it ends its children
      daemon->finish(kPatience);
    }
    std::error_code ignored;
    fs::remove_all(directory, ignored);
  }

  void startDaemon() {
    for (const char* name : {"spool/tmp", "cache", "state", "ppd"}) {
      fs::create_directories(directory / name);
    }
    for (const auto& [name, text] :
         {std::pair{"cupsd.conf", kServerSettings}, {"cups-files.conf", kServerFiles}}) {
      std::string settings = text;
      for (std::size_t at = 0; (at = settings.find('@')) != std::string::npos;) {
        settings.replace(at, 1, directory);
      }
      std::ofstream(directory / name) << settings;
    }
    sockaddr_un address{AF_UNIX, {}};
    (directory / "cups.sock").string().copy(address.sun_path, sizeof address.sun_path - 1);
    daemon = start({.arguments = {cupsd(), "-f", "-c", directory / "cupsd.conf", "-s",
                                  directory / "cups-files.conf"}},
                   address);
  }

  void startPrinter() {
    fs::create_directory(documents);
    ::inotify_add_watch(watch.get(), documents.c_str(), IN_CLOSE_WRITE);
    const std::string command = "exec ippeveprinter -k -f application/pdf -n localhost -r off -d " +
                                documents.string() + " -p " + std::to_string(port) +
                                " 'Test printer'";
    printer = start({.arguments = {"sh", "-c", command},
                     .environment = {{"DBUS_SYSTEM_BUS_ADDRESS", testBus().address()}}},
                    loopback(port));
  }

  /// Waits for the next document to be there as a whole: its content; empty when none comes.
  std::string nextDocument() {
    pollfd ready{watch.get(), POLLIN, 0};
    constexpr std::chrono::milliseconds kMost = kPatience;
    if (::poll(&ready, 1, static_cast<int>(kMost.count())) != 1) return "";
    alignas(inotify_event) std::array<char, 4096> buffer{};
    if (::read(watch.get(), buffer.data(), buffer.size()) <= 0) return "";
    std::ostringstream content;
    content << std::ifstream(documents / (buffer.data() + sizeof(inotify_event))).rdbuf();
    return content.str();
  }

  /// The status of each local printer, by name.
  std::map<std::string, std::string> localPrinters() {
    std::map<std::string, std::string> found;
    const auto summary = nlohmann::json::parse(proxy->SearchAllPrinter());
    for (const auto& entry : summary["printers"]) {
      if (entry["origin"] == "local") found[entry["name"]] = entry["status"];
    }
    return found;
  }

  static constexpr char kName[] = "Lab";

  std::string pattern = "/tmp/perix-cups-XXXXXX";
  const fs::path directory = ::mkdtemp(pattern.data());
  const fs::path documents = directory / "documents";
  const OwnedDescriptor watch{::inotify_init1(IN_CLOEXEC)};
  const uint16_t port = freePort();
  const std::string uri = "ipp://localhost:" + std::to_string(port) + "/ipp/print";
  std::unique_ptr<ChildProcess> daemon;
  std::unique_ptr<ChildProcess> printer;
  std::unique_ptr<ChildProcess> service;
  PerixProxy* proxy = nullptr;
};

TEST_F(CupsServer, PrintsTestPageOnAddedPrinter) {
  EXPECT_EQ(localPrinters().count(kName), 1U);
  EXPECT_EQ(proxy->PrintTestPage(kName), 0);
  const std::string page = nextDocument();
  EXPECT_EQ(page.substr(0, 5), "%PDF-");
  EXPECT_NE(page.find("/BaseFont /Helvetica"), std::string::npos) << page;  // it is ours
  EXPECT_EQ(proxy->DeletePrinter(kName), 0);
  EXPECT_TRUE(localPrinters().empty());
}

TEST_F(CupsServer, NamesAndChangesDrivers) {
  const auto drivers = nlohmann::json::parse(proxy->GetPrinterDriverlList("EVERYWHERE"))["drivers"];
  ASSERT_FALSE(drivers.empty());
  EXPECT_EQ(drivers[0]["name"], "everywhere");
  EXPECT_EQ(proxy->ChangePrinterDriver(kName, "raw"), 0);
  const auto state = nlohmann::json::parse(askControl("state"))["printers"];
  EXPECT_TRUE(std::any_of(state.begin(), state.end(), [](const auto& entry) {
    return entry["name"] == kName && entry["driver"] == "Local Raw Printer";
  })) << state;
}

TEST_F(CupsServer, SaysWhyItRefuses) {
  const auto code = [](ServiceResult result) { return static_cast<int>(result); };
  const int invalid = code(ServiceResult::InvalidArgument);
  const int unknownDriver = code(ServiceResult::UnknownDriver);
  const int unknownPrinter = code(ServiceResult::UnknownPrinter);
  EXPECT_EQ(proxy->AutoAddPrinter(kName, uri, ""), code(ServiceResult::AlreadyExists));
  EXPECT_EQ(proxy->AddLocalPrinter("a/b", uri, "raw"), invalid);
  EXPECT_EQ(proxy->AddLocalPrinter("New", "nix:/x", "raw"), invalid);
  EXPECT_EQ(proxy->AddLocalPrinter("New", uri, "nix.ppd"), unknownDriver);
  EXPECT_EQ(proxy->AutoAddPrinter("New", "socket://localhost", ""), unknownDriver);
  EXPECT_EQ(proxy->AddLocalPrinter("New", "ipp://localhost:1/ipp/print", "everywhere"),
            code(ServiceResult::HostNotFound));
  EXPECT_EQ(proxy->ChangePrinterDriver(kName, "nix.ppd"), unknownDriver);
  EXPECT_EQ(proxy->ChangePrinterDriver("New", "raw"), unknownPrinter);
  EXPECT_EQ(proxy->PrintTestPage("New"), unknownPrinter);
  EXPECT_EQ(proxy->DeletePrinter("New"), unknownPrinter);
  EXPECT_EQ(localPrinters().size(), 1U);
  daemon->kill();
  EXPECT_EQ(proxy->PrintTestPage(kName), code(ServiceResult::NoPrintServer));
}

TEST_F(CupsServer, PrintsPagesOfPausedPrinterWhenResumed) {
  constexpr unsigned short kNumber = 1;  // the first that is free
  constexpr unsigned short kPause = 1, kResume = 2;
  ASSERT_EQ(proxy->ConfigPrinterCommand("office-1", kNumber, kPause), 0);
  EXPECT_EQ(localPrinters()[kName], "paused");
  EXPECT_EQ(proxy->PrintTestPage(kName), 0);
  ASSERT_EQ(proxy->ConfigPrinterCommand("office-1", kNumber, kResume), 0);
  EXPECT_FALSE(nextDocument().empty());
}

TEST_F(CupsServer, HangsWithoutHoldingUpService) {
  daemon->pause();
  auto printed = std::async(std::launch::async, [this] { return proxy->PrintTestPage(kName); });
  EXPECT_TRUE(
      comesTrue([] { return askControl("listCalls").find("printTestPage") != std::string::npos; }));
  EXPECT_NE(askControl("state").find(kName), std::string::npos);
  EXPECT_EQ(printed.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  daemon->signal(SIGCONT);
  EXPECT_EQ(printed.get(), 0);
}

}  // namespace
}  // namespace zq
