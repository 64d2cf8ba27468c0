#include "sd_bus_open.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bus_log.h"

namespace zq {
namespace {

int start(SdBus& bus) {
  sd_bus* opened = nullptr;
  const char* address = std::getenv("ZQBUS_ADDRESS");
  if (address == nullptr || *address == '\0') {
    const int result = sd_bus_open_user(&opened);
    bus.reset(opened);
    return result;
  }
  int result = sd_bus_new(&opened);
  bus.reset(opened);
  if (result >= 0) result = sd_bus_set_address(opened, address);
  if (result >= 0) result = sd_bus_set_bus_client(opened, 1);
  return result >= 0 ? sd_bus_start(opened) : result;
}

}  // namespace

int waitReady(sd_bus* bus, std::chrono::steady_clock::time_point deadline) {
  using namespace std::chrono;
  for (;;) {
    int result = sd_bus_process(bus, nullptr);
    if (result < 0) return result;
    const bool ready = sd_bus_is_ready(bus) > 0;
    if (ready && result == 0) return 0;
    const auto left = duration_cast<microseconds>(deadline - steady_clock::now());
    if (left <= microseconds(0)) return ready ? 0 : -ETIMEDOUT;
    if (result > 0) continue;  // once ready too: no thread is woken for what comes along
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

SdBusMessage newBusCall(sd_bus* bus, const char* method, const char* argument) {
  sd_bus_message* made = nullptr;
  int result = sd_bus_message_new_method_call(bus, &made, kBusName, kBusPath, kBusName, method);
  SdBusMessage call(made);
  if (result >= 0) result = sd_bus_message_append_basic(made, 's', argument);
  return result >= 0 ? std::move(call) : nullptr;
}

SdBus openSdBus(std::chrono::steady_clock::time_point deadline, std::string& error) {
  SdBus bus;
  int result = start(bus);
  if (result >= 0) result = waitReady(bus.get(), deadline);
  if (result >= 0) return bus;
  error = std::string("cannot connect to the bus: ") + std::strerror(-result);
  return nullptr;
}

std::string serviceName(const std::string& service) {
  return "org.zqbus." + service;
}

std::string servicePath(const std::string& service) {
  return "/org/zqbus/" + service;
}

}  // namespace zq
