#include "bench/raw_service.h"

#include <unistd.h>

#include <array>

#include "bench/bench_service.h"
#include "bench/raw_bus.h"
#include "tools/embedded/child_process.h"

namespace zq::bench {
namespace {

int getDeviceList(sd_bus_message* call, void*, sd_bus_error*) {
  static const std::array<char, kRecordSize> record = [] {
    std::array<char, kRecordSize> filled{};
    filled.fill('\1');
    return filled;
  }();
  sd_bus_message* made = nullptr;
  requireRaw(sd_bus_message_new_method_return(call, &made), "the list's reply");
  const RawMessage reply(made);
  const int32_t count = kListRecords;
  requireRaw(sd_bus_message_append_basic(made, 'i', &count), "the list's count");
  requireRaw(sd_bus_message_open_container(made, 'a', "ay"), "the list");
  for (int i = 0; i < kListRecords; ++i) {
    requireRaw(sd_bus_message_append_array(made, 'y', record.data(), record.size()), "a record");
  }
  requireRaw(sd_bus_message_close_container(made), "the list");
  return sd_bus_send(nullptr, made, nullptr);
}

void sendEvent(sd_bus* bus, const EventRecord& record) {
  sd_bus_message* made = nullptr;
  requireRaw(sd_bus_message_new_signal(bus, &made, kRawPath, kRawName, kEvent), "a signal");
  const RawMessage event(made);
  requireRaw(sd_bus_message_append(made, "ii", kDesktopId, kEventKind), "a signal");
  requireRaw(sd_bus_message_append_array(made, 'y', record.data(), record.size()), "a signal");
  requireRaw(sd_bus_send(bus, made, nullptr), "a signal");
}

int sendEvents(sd_bus_message* call, void*, sd_bus_error*) {
  int32_t events = 0;
  int32_t apart = 0;
  requireRaw(sd_bus_message_read(call, "ii", &events, &apart), "the wish");
  requireRaw(sd_bus_reply_method_return(call, nullptr), "the answer");
  sd_bus* const bus = sd_bus_message_get_bus(call);
  sendStamped(events, apart, [bus](const EventRecord& record) { sendEvent(bus, record); });
  return 1;
}

int connectDevice(sd_bus_message* call, void*, sd_bus_error*) {
  int32_t desktop = 0;
  uint16_t device = 0;
  requireRaw(sd_bus_message_read(call, "iq", &desktop, &device), "the arguments");
  return sd_bus_reply_method_return(call, "i", 0);
}

constexpr sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("connectDevice", "iq", "i", &connectDevice, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getDeviceList", "i", "iaay", &getDeviceList, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("sendEvents", "ii", "", &sendEvents, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int runRawService() {
  const RawBus bus = openRawBus();
  requireRaw(sd_bus_add_object_vtable(bus.get(), nullptr, kRawPath, kRawName, kMethods, nullptr),
             "the raw service's object");
  requireRaw(sd_bus_request_name(bus.get(), kRawName, 0), "the raw service's name");
  if (::write(ChildProcess::kReadinessDescriptor, "ready\n", 6) != 6) return 1;
  for (;;) processRaw(bus.get());
}

void serveRawEnd(int socket) {
  sd_bus* made = nullptr;
  sd_id128_t id{};
  requireRaw(sd_id128_randomize(&id), "sd_id128_randomize");
  requireRaw(sd_bus_new(&made), "sd_bus_new");
  const RawBus bus(made);
  requireRaw(sd_bus_set_fd(made, socket, socket), "sd_bus_set_fd");
  requireRaw(sd_bus_set_server(made, 1, id), "sd_bus_set_server");
  requireRaw(sd_bus_start(made), "sd_bus_start");
  requireRaw(sd_bus_add_object_vtable(made, nullptr, kRawPath, kRawName, kMethods, nullptr),
             "the raw service's object");
  while (sd_bus_process(made, nullptr) >= 0) sd_bus_wait(made, UINT64_MAX);
}

}  // namespace zq::bench
