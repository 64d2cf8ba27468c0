#include "tests/service/cups_world.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace zq {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPatience{20'000};
constexpr milliseconds kToEnd{5'000};
constexpr milliseconds kBetweenTries{10};

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

void write(const fs::path& file, std::string text, const fs::path& directory) {
  for (auto at = text.find('@'); at != std::string::npos; at = text.find('@')) {
    text.replace(at, 1, directory.string());
  }
  std::ofstream(file) << text;
}

std::string cupsd() {
  // Not in everybody's PATH.
  constexpr char kUsual[] = "/usr/sbin/cupsd";
  return ::access(kUsual, X_OK) == 0 ? kUsual : findInPath("cupsd");
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

uint16_t freePort() {
  const OwnedDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(socket.get(), generic, size) != 0 ||
      ::getsockname(socket.get(), generic, &size) != 0) {
    throw std::runtime_error("no loopback port is free");
  }
  return ntohs(address.sin_port);
}

template <typename Address>
bool answers(const Address& address) {
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const OwnedDescriptor probe(::socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return ::connect(probe.get(), generic, sizeof address) == 0;
}

/// Neither program says when it is ready.
template <typename Address>
void awaitAnswer(ChildProcess& child, const Address& address) {
  const auto deadline = Clock::now() + kPatience;
  while (!answers(address)) {
    if (!child.running() || Clock::now() > deadline) {
      throw std::runtime_error("did not come up: " + child.errorText());
    }
    std::this_thread::sleep_for(kBetweenTries);
  }
}

}  // namespace

std::string CupsWorld::missing() {
  if (cupsd().empty()) return "there is no cupsd (package cups)";
  if (findInPath("ippeveprinter").empty()) return "no ippeveprinter (package cups-ipp-utils)";
  return "";
}

CupsWorld::CupsWorld(const std::string& busAddress)
    : watch_(::inotify_init1(IN_CLOEXEC)), port_(freePort()) {
  std::string pattern = "/tmp/perix-cups-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
  directory_ = pattern;
  // When root starts it, cupsd has another user do its work.
  fs::permissions(directory_, fs::perms::group_exec | fs::perms::others_exec,
                  fs::perm_options::add);
  startDaemon();
  startPrinter(busAddress);
}

CupsWorld::~CupsWorld() {
  printer_.reset();
  daemon_->signal(SIGCONT);
  daemon_->signal(SIGTERM);  // it ends its own children then
  daemon_->finish(kToEnd);
  std::error_code ignored;
  fs::remove_all(directory_, ignored);
}

void CupsWorld::startDaemon() {
  const fs::path settings = directory_ / "cupsd.conf";
  const fs::path files = directory_ / "cups-files.conf";
  write(settings, kServerSettings, directory_);
  write(files, kServerFiles, directory_);
  for (const char* name : {"spool/tmp", "cache", "state", "ppd"}) {
    fs::create_directories(directory_ / name);
  }
  ChildProcess::Options options;
  options.arguments = {cupsd(), "-f", "-c", settings, "-s", files};
  options.error = ChildProcess::Stream::Capture;
  daemon_ = std::make_unique<ChildProcess>(options);
  sockaddr_un address{AF_UNIX, {}};
  socket().copy(address.sun_path, sizeof address.sun_path - 1);
  awaitAnswer(*daemon_, address);
}

void CupsWorld::startPrinter(const std::string& busAddress) {
  const std::string documents = directory_ / "documents";
  fs::create_directory(documents);
  ::inotify_add_watch(watch_.get(), documents.c_str(), IN_CLOSE_WRITE);
  ChildProcess::Options options;
  options.arguments = {"sh", "-c",
                       "exec ippeveprinter -k -f application/pdf -n localhost -r off -d " +
                           documents + " -p " + std::to_string(port_) + " 'Test printer'"};
  options.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", busAddress}};
  options.output = ChildProcess::Stream::Discard;
  options.error = ChildProcess::Stream::Capture;
  printer_ = std::make_unique<ChildProcess>(options);
  awaitAnswer(*printer_, loopback(port_));
}

std::string CupsWorld::nextDocument() {
  pollfd ready{watch_.get(), POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(kPatience.count())) != 1) return "";
  alignas(inotify_event) std::array<char, 4096> buffer{};
  if (::read(watch_.get(), buffer.data(), buffer.size()) <= 0) return "";
  inotify_event head{};
  std::memcpy(&head, buffer.data(), sizeof head);
  std::ostringstream content;
  content << std::ifstream(directory_ / "documents" / (buffer.data() + sizeof head)).rdbuf();
  return content.str();
}

}  // namespace zq
