#include "stranger.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "platform/zqbus/sdbus/codec.h"
#include "platform/zqbus/sdbus/descriptor_passing.h"
#include "tests/support/bus_world.h"

namespace zq {
namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kService[] = "org.zqbus.perix";
constexpr char kPath[] = "/org/zqbus/perix";

void check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(what);
}

}  // namespace

Stranger::Stranger() {
  check(sd_bus_new(&bus_), "new");
  check(sd_bus_set_address(bus_, testBus().address().c_str()), "address");
  check(sd_bus_set_bus_client(bus_, 1), "bus client");
  check(sd_bus_start(bus_), "start");
}

Stranger::~Stranger() {
  sd_bus_flush_close_unref(bus_);
}

void Stranger::sendSignal(const char* path, const char* interface, const char* member,
                          const ZQBusMessage& arguments, const char* to) {
  sd_bus_message* signal = nullptr;
  check(sd_bus_message_new_signal(bus_, &signal, path, interface, member), "signal");
  if (to != nullptr) check(sd_bus_message_set_destination(signal, to), "destination");
  check(encodeArguments(arguments, signal), "arguments");
  check(sd_bus_send(bus_, signal, nullptr), "send");
  sd_bus_message_unref(signal);
}

std::string Stranger::name() const {
  const char* name = nullptr;
  check(sd_bus_get_unique_name(bus_, &name), "name");
  return name;
}

void Stranger::sync() {
  check(sd_bus_call_method(bus_, kBus, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                           nullptr),
        "ping");
}

bool Stranger::call(const char* method) {
  return sd_bus_call_method(bus_, kService, kPath, kService, method, nullptr, nullptr, nullptr) >=
         0;
}

int Stranger::openLine() {
  int handover[2];
  check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, handover), "socketpair");
  const int end = openLineOn(handover[1]) ? receiveDescriptor(handover[0]) : -1;
  ::close(handover[0]);
  ::close(handover[1]);
  return end;
}

bool Stranger::openLineOn(int handover) {
  return sd_bus_call_method(bus_, kService, kPath, "org.zqbus.Direct", "Open", nullptr, nullptr,
                            "h", handover) >= 0;
}

void Stranger::becomeMonitor() {
  check(sd_bus_call_method(bus_, kBus, "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
                           "BecomeMonitor", nullptr, nullptr, "asu", 0, 0),
        "monitor");
}

std::vector<std::string> Stranger::seenUntil(const std::string& member) {
  std::vector<std::string> seen;
  for (;;) {
    sd_bus_message* taken = nullptr;
    const int result = sd_bus_process(bus_, &taken);
    check(result, "process");
    const std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)> message(
        taken, &sd_bus_message_unref);
    if (taken != nullptr && sd_bus_message_get_member(taken) != nullptr) {
      if (member == sd_bus_message_get_member(taken)) return seen;
      const char* interface = sd_bus_message_get_interface(taken);
      seen.push_back(std::string(interface != nullptr ? interface : "") + '.' +
                     sd_bus_message_get_member(taken));
    }
    if (result == 0) check(sd_bus_wait(bus_, UINT64_MAX), "wait");
  }
}

}  // namespace zq
