#include "sd_bus_open.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "platform/zqbus/bus_log.h"

namespace zq {
namespace {

constexpr const char* kTransports[] = {";unix:", ";tcp:", ";unixexec:", ";x-machine-"};

std::string valueOf(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

/// A path, escaped for a D-Bus address.
std::string escaped(const std::string& path) {
  std::string result;
  for (const unsigned char character : path) {
    if (std::isalnum(character) != 0 || std::strchr("-_/.\\*", character) != nullptr) {
      result += static_cast<char>(character);
    } else {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02x", static_cast<unsigned>(character));
      result += code;
    }
  }
  return result;
}

/// Not sd_bus_open_user(), which starts the connection before descriptors can be refused.
int start(SdBus& bus, const std::string& address, Descriptors descriptors) {
  sd_bus* opened = nullptr;
  int result = sd_bus_new(&opened);
  bus.reset(opened);
  if (result >= 0) result = sd_bus_set_address(opened, address.c_str());
  if (result >= 0) result = sd_bus_set_bus_client(opened, 1);
  if (result >= 0) result = sd_bus_negotiate_fds(opened, descriptors == Descriptors::Carried);
  return result >= 0 ? sd_bus_start(opened) : result;
}

/// Whether sd-bus can try any part of an address; it is silent about kinds that it does not know.
bool isUsable(const std::string& address) {
  const std::string parts = ";" + address;
  return std::any_of(std::begin(kTransports), std::end(kTransports), [&](const char* transport) {
    return parts.find(transport) != std::string::npos;
  });
}

/// Why a connection to the bus at an address could not be started.
std::string startProblem(const std::string& address, int result) {
  if (result == -EINVAL || !isUsable(address))
    return "the address of the bus is not valid: " + address;
  return "cannot reach the bus at " + address + ": " + std::strerror(-result);
}

/// Why the bus, which took the connection, did not admit this client.
std::string helloProblem(const std::string& address, int result) {
  const std::string bus = "the bus at " + address;
  // Whether a TCP connection was taken is known later.
  if (address.starts_with("tcp:")) return "cannot reach " + bus + ": " + std::strerror(-result);
  switch (-result) {
    case ETIMEDOUT:
      return bus + " does not answer";
    case EACCES:
    case EPERM:
      return bus + " does not admit this user: " + std::strerror(-result);
    case ECONNRESET:
    case EPIPE:
    case ENOTCONN:
      return bus + " closed the connection during the authentication (" + std::strerror(-result) +
             "), as a bus proxy does that takes no pipelined authentication";
    default:
      return bus + " did not admit this client: " + std::strerror(-result);
  }
}

}  // namespace

std::string busAddress() {
  std::string variable;
  return busAddress(variable);
}

std::string busAddress(std::string& variable) {
  for (const char* name : {"ZQBUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"}) {
    variable = name;
    if (std::string address = valueOf(name); !address.empty()) return address;
  }
  variable = "XDG_RUNTIME_DIR";
  const std::string directory = valueOf("XDG_RUNTIME_DIR");
  return directory.empty() ? "" : "unix:path=" + escaped(directory) + "/bus";
}

int waitReady(sd_bus* bus, std::chrono::steady_clock::time_point deadline) {
  using namespace std::chrono;
  for (;;) {
    int result = sd_bus_process(bus, nullptr);
    if (result < 0) return result;
    const bool ready = sd_bus_is_ready(bus) > 0;
    if (ready && result == 0) return 0;
    const auto left = duration_cast<microseconds>(deadline - steady_clock::now());
    if (left <= microseconds(0)) return ready ? 0 : -ETIMEDOUT;
    if (result > 0)
      continue;  // once ready too: no thread is woken for messages that are read already
    result = sd_bus_wait(bus, static_cast<uint64_t>(left.count()));
    if (result < 0 && result != -EINTR) return result;
  }
}

bool isFromBus(sd_bus_message* message) {
  const char* sender = sd_bus_message_get_sender(message);
  return sender != nullptr && std::strcmp(sender, kBusName) == 0;
}

void logRefusal(sd_bus_message* answer) {
  if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
    busLog(std::string("the bus refused a subscription: ") +
           (error->message != nullptr ? error->message : error->name));
  }
}

uid_t userOn(sd_bus* bus, std::chrono::steady_clock::time_point deadline) {
  using namespace std::chrono;
  const uid_t user = ::geteuid();
  const char* name = nullptr;
  if (!busAddress().starts_with("unixexec:") || sd_bus_get_unique_name(bus, &name) < 0) return user;
  const SdBusMessage question = newBusCall(bus, "GetConnectionUnixUser", name);
  sd_bus_message* reply = nullptr;
  const auto left =
      std::max(duration_cast<microseconds>(deadline - steady_clock::now()), microseconds(1));
  if (question == nullptr ||
      sd_bus_call(bus, question.get(), static_cast<uint64_t>(left.count()), nullptr, &reply) < 0) {
    return user;
  }
  const SdBusMessage answer(reply);
  uint32_t userThere = user;
  return isFromBus(reply) && sd_bus_message_read(reply, "u", &userThere) > 0 ? userThere : user;
}

SdBusMessage newBusCall(sd_bus* bus, const char* method, const char* argument,
                        std::optional<uint32_t> flags) {
  sd_bus_message* made = nullptr;
  int result = sd_bus_message_new_method_call(bus, &made, kBusName, kBusPath, kBusName, method);
  SdBusMessage call(made);
  if (result >= 0) result = sd_bus_message_append_basic(made, 's', argument);
  if (result >= 0 && flags) result = sd_bus_message_append_basic(made, 'u', &*flags);
  return result >= 0 ? std::move(call) : nullptr;
}

SdBus openSdBus(std::chrono::steady_clock::time_point deadline, Descriptors descriptors,
                std::string& error) {
  const std::string address = busAddress();
  if (address.empty()) {
    error =
        "no bus is named: neither ZQBUS_ADDRESS nor DBUS_SESSION_BUS_ADDRESS nor "
        "XDG_RUNTIME_DIR is set";
    return nullptr;
  }
  SdBus bus;
  int result = start(bus, address, descriptors);
  if (result < 0) {
    error = startProblem(address, result);
    return nullptr;
  }
  result = waitReady(bus.get(), deadline);
  if (result >= 0) return bus;
  error = helloProblem(address, result);
  return nullptr;
}

std::string serviceName(const std::string& service) {
  return "org.zqbus." + service;
}

std::string servicePath(const std::string& service) {
  return "/org/zqbus/" + service;
}

}  // namespace zq
