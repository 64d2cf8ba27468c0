// dbus-broker behind the command line of dbus-daemon, for tests that run on either:
//
//   perix-dbus-broker --config-file=FILE --print-address=FD
//
// Of the file it takes the path of the socket alone. dbus-broker opens no socket itself: a
// controller gives it a socket that listens and a policy, over the connection "--controller". The
// stock controller needs a service manager and a journal. This controller is a child of the broker,
// ends with it, admits everybody to everything, and knows no services to start.
#include <systemd/sd-bus.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

// The broker reads its policy as one value: the rules of users, those of ranges of groups, pairs of
// names and security contexts, whether AppArmor counts, and the type of the bus. Rules say who may
// connect, own a name, send and receive.
constexpr char kPolicyType[] =
    "(a(u(bta(btbs)a(btssssuutt)a(btssssuutt)))a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))a(ss)bs)";

[[noreturn]] void fail(const std::string& text) {
  std::fprintf(stderr, "perix-dbus-broker: %s\n", text.c_str());
  std::exit(1);
}

void check(int result, const char* action) {
  if (result < 0) fail(std::string(action) + " failed: " + std::to_string(result));
}

/// The part of a text behind `before`, up to a character.
std::string partOf(const std::string& text, const std::string& before, char end) {
  auto start = text.find(before);
  if (start == std::string::npos) fail("needs " + before);
  start += before.size();
  return text.substr(start, text.find(end, start) - start);
}

std::string socketOf(const std::string& configuration) {
  std::ostringstream content;
  content << std::ifstream(configuration).rdbuf();
  return partOf(content.str(), "<listen>unix:path=", '<');
}

int listenAt(const std::string& path) {
  sockaddr_un address{AF_UNIX, {}};
  if (path.size() >= sizeof address.sun_path) fail("too long: " + path);
  path.copy(address.sun_path, path.size());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0777) != 0 || ::listen(listener, SOMAXCONN) != 0) {
    fail("cannot listen at " + path);
  }
  return listener;
}

int appendPolicy(sd_bus_message* message) {
  constexpr uint32_t kEveryUser = UINT32_MAX;
  constexpr uint64_t kPriority = 1;
  constexpr uint64_t kLeastDescriptors = 0;
  constexpr uint64_t kMostDescriptors = UINT64_MAX;
  // A number stands in front of the rows of each list.
  return sd_bus_message_append(message, "v", kPolicyType,              //
                               1, kEveryUser, 1, kPriority,            // connect
                               1, 1, kPriority, 1, "",                 // own
                               1, 1, kPriority, "", "", "", "", 0, 0,  // send
                               kLeastDescriptors, kMostDescriptors,    //
                               1, 1, kPriority, "", "", "", "", 0, 0,  // receive
                               kLeastDescriptors, kMostDescriptors,    //
                               0, 0, 0, "session");
}

/// Hands the broker its socket, tells that the bus is there, and waits for the end of the broker.
[[noreturn]] void control(int connection, int listener, int readiness, const std::string& address) {
  sd_bus* broker = nullptr;
  sd_bus_message* message = nullptr;
  check(sd_bus_new(&broker), "controller");
  check(sd_bus_set_fd(broker, connection, connection), "controller");
  check(sd_bus_negotiate_fds(broker, 1), "controller");
  check(sd_bus_start(broker), "controller");
  check(sd_bus_message_new_method_call(broker, &message, nullptr, "/org/bus1/DBus/Broker",
                                       "org.bus1.DBus.Broker", "AddListener"),
        "AddListener");
  check(sd_bus_message_append(message, "oh", "/org/bus1/DBus/Listener/0", listener), "AddListener");
  check(appendPolicy(message), "AddListener");
  sd_bus_error error = SD_BUS_ERROR_NULL;
  if (sd_bus_call(broker, message, 0, &error, nullptr) < 0) fail(error.message);
  ::close(listener);
  const std::string line = address + "\n";
  if (::write(readiness, line.data(), line.size()) < 0) fail("cannot tell the address");
  ::close(readiness);
  while (sd_bus_wait(broker, UINT64_MAX) >= 0 && sd_bus_process(broker, nullptr) >= 0) {
  }
  std::exit(0);
}

/// The limits are those that a stock session bus sets.
[[noreturn]] void becomeBroker(int connection) {
  const std::string controller = std::to_string(connection);
  ::execlp("dbus-broker", "dbus-broker", "--controller", controller.c_str(), "--machine-id",
           "0123456789abcdef0123456789abcdef", "--max-bytes", "100000000000000", "--max-fds",
           "25000000000000", "--max-matches", "5000000000", nullptr);
  fail("cannot run dbus-broker");
}

}  // namespace

int main(int argc, char** argv) {
  std::string options;
  for (int i = 1; i < argc; ++i) options += std::string(argv[i]) + '\n';
  const std::string path = socketOf(partOf(options, "--config-file=", '\n'));
  const int readiness = std::stoi(partOf(options, "--print-address=", '\n'));
  const int listener = listenAt(path);
  int ends[2];
  check(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), "controller");
  const pid_t controller = ::fork();
  check(controller, "fork");
  ::close(ends[controller == 0 ? 1 : 0]);
  if (controller == 0) control(ends[0], listener, readiness, "unix:path=" + path);
  ::close(readiness);
  becomeBroker(ends[1]);
}
