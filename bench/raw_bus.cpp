#include "bench/raw_bus.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/bench_service.h"

namespace zq::bench {
void requireRaw(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

RawBus openRawBus() {
  sd_bus* opened = nullptr;
  requireRaw(sd_bus_new(&opened), "sd_bus_new");
  RawBus bus(opened);
  requireRaw(sd_bus_set_address(opened, std::getenv("ZQBUS_ADDRESS")), "sd_bus_set_address");
  requireRaw(sd_bus_set_bus_client(opened, 1), "sd_bus_set_bus_client");
  requireRaw(sd_bus_start(opened), "sd_bus_start");
  return bus;
}

RawBus openRawEnd(int socket) {
  sd_bus* opened = nullptr;
  requireRaw(sd_bus_new(&opened), "sd_bus_new");
  RawBus bus(opened);
  const int copy = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
  requireRaw(sd_bus_set_fd(opened, copy, copy), "sd_bus_set_fd");
  requireRaw(sd_bus_start(opened), "sd_bus_start");
  return bus;
}

void askRawOwner(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "GetNameOwner", nullptr, &reply,
                                        "s", kServiceName);
  const RawMessage owned(reply);
  requireRaw(result, "GetNameOwner");
}

void connectDeviceRaw(sd_bus* bus, const char* name, const char* path) {
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(bus, name, path, name, "connectDevice", nullptr, &reply,
                                        "iq", kDesktopId, kDevice);
  const RawMessage owned(reply);
  requireRaw(result, "connectDevice");
  int32_t status = -1;
  requireRaw(sd_bus_message_read_basic(reply, 'i', &status), "connectDevice's result");
}

RawMessage getDeviceListRaw(sd_bus* bus, const char* name, const char* path) {
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call_method(bus, name, path, name, "getDeviceList", nullptr, &reply, "i", kDesktopId);
  RawMessage owned(reply);
  requireRaw(result, "getDeviceList");
  return owned;
}

void readDeviceListRaw(sd_bus_message* reply, const std::function<void(const void*)>& onRecord) {
  int32_t count = 0;
  requireRaw(sd_bus_message_read_basic(reply, 'i', &count), "the list's count");
  requireRaw(sd_bus_message_enter_container(reply, 'a', "ay"), "the list");
  if (count != kListRecords) throw std::runtime_error("the list is not whole");
  for (int i = 0; i < count; ++i) {
    const void* record = nullptr;
    std::size_t size = 0;
    requireRaw(sd_bus_message_read_array(reply, 'y', &record, &size), "a record");
    if (size != kRecordSize) throw std::runtime_error("a record is not whole");
    onRecord(record);
  }
}

void processRaw(sd_bus* bus) {
  const int done = sd_bus_process(bus, nullptr);
  requireRaw(done, "sd_bus_process");
  if (done == 0) requireRaw(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
}

void matchEventsRaw(sd_bus* bus, sd_bus_message_handler_t onEvent, void* userdata) {
  requireRaw(
      sd_bus_match_signal(bus, nullptr, kRawName, kRawPath, kRawName, kEvent, onEvent, userdata),
      "the match");
}

void requestEventsRaw(sd_bus* bus, int events, int apart) {
  const auto onAnswer = [](sd_bus_message* answer, void*, sd_bus_error*) {
    return -sd_bus_message_get_errno(answer);
  };
  requireRaw(sd_bus_call_method_async(bus, nullptr, kRawName, kRawPath, kRawName, "sendEvents",
                                      onAnswer, nullptr, "ii", events, apart),
             "sendEvents");
}

const uint8_t* eventRecordRaw(sd_bus_message* event) {
  int32_t desktop = 0;
  int32_t kind = 0;
  const void* record = nullptr;
  std::size_t size = 0;
  requireRaw(sd_bus_message_read(event, "ii", &desktop, &kind), "an event");
  requireRaw(sd_bus_message_read_array(event, 'y', &record, &size), "an event");
  if (size != kRecordSize) throw std::runtime_error("an event's record is not whole");
  return static_cast<const uint8_t*>(record);
}

}  // namespace zq::bench
