#include "tools/perixctl/remote_host.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

// Of an ended bridge the bus library sees the end of the connection alone. So the shell that waits
// for ssh says why it ended: ssh itself ends with 255, and a shell without the program with 127.
constexpr const char* kBridge = R"(
say() { echo "perixctl: $1" >&2; }
command -v ssh >/dev/null || { say "ssh is not installed on this machine"; exit 1; }
ssh -xT -- "$1" "$2"
case $? in
  0) ;;
  127) say "systemd-stdio-bridge is not installed on $1" ;;
  255) say "ssh has no connection to $1" ;;
  *) say "$1 has no session bus, or the bus does not admit this user" ;;
esac)";

// Run by the other user's shell, of any kind.
constexpr const char* kRemoteCommand =
    "sh -c 'exec systemd-stdio-bridge --bus-path="
    "\"${DBUS_SESSION_BUS_ADDRESS:-unix:path=${XDG_RUNTIME_DIR:-/run/user/$(id -u)}/bus}\"'";

// As the value of a key in a D-Bus address.
std::string addressValue(const std::string& text) {
  std::string value;
  for (const char byte : text) {
    std::array<char, 4> code{};
    std::snprintf(code.data(), code.size(), "%%%02x", static_cast<unsigned char>(byte));
    value += code.data();
  }
  return value;
}

}  // namespace

void useRemoteHost(const std::string& host) {
  if (host.starts_with('-')) {
    throw CommandError(ExitCode::Usage, "--host: '" + host + "' is not the name of a machine");
  }
  const std::string address = "unixexec:path=sh,argv1=-c,argv2=" + addressValue(kBridge) +
                              ",argv3=sh,argv4=" + addressValue(host) +
                              ",argv5=" + addressValue(kRemoteCommand);
  ::setenv("ZQBUS_ADDRESS", address.c_str(), 1);
  ::setenv("ZQBUS_DIRECT", "0", 1);  // a line passes descriptors, which ssh does not carry
}

}  // namespace zq::ctl
