// The peer by sd-bus.
#include <systemd/sd-bus.h>

#include <cstring>
#include <stdexcept>

#include "bench/peers/peer.h"

namespace zq::bench {
namespace {

void require(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

sd_bus* openSessionBus() {
  sd_bus* bus = nullptr;
  require(sd_bus_open_user(&bus), "sd_bus_open_user");
  return bus;
}

int onConnectDevice(sd_bus_message* call, void*, sd_bus_error*) {
  int32_t desktop = 0;
  uint16_t device = 0;
  const int read = sd_bus_message_read(call, "iq", &desktop, &device);
  return read < 0 ? read : sd_bus_reply_method_return(call, "i", 0);
}

constexpr sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("connectDevice", "iq", "i", &onConnectDevice, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

class SdBusClient : public PeerClient {
 public:
  explicit SdBusClient(std::string name) : bus_(openSessionBus()), name_(std::move(name)) {}
  SdBusClient(const SdBusClient&) = delete;
  SdBusClient& operator=(const SdBusClient&) = delete;
  ~SdBusClient() override { sd_bus_flush_close_unref(bus_); }

  int32_t connectDevice(int32_t desktop, uint16_t device) override {
    sd_bus_message* reply = nullptr;
    require(sd_bus_call_method(bus_, name_.c_str(), kPeerPath, kPeerInterface, "connectDevice",
                               nullptr, &reply, "iq", desktop, device),
            "sd_bus_call_method");
    int32_t status = -1;
    const int read = sd_bus_message_read_basic(reply, 'i', &status);
    sd_bus_message_unref(reply);
    require(read, "sd_bus_message_read_basic");
    return status;
  }

 private:
  sd_bus* const bus_;
  const std::string name_;
};

}  // namespace

void servePeer(const std::string& name, const std::function<void()>& ready) {
  sd_bus* const bus = openSessionBus();
  require(sd_bus_add_object_vtable(bus, nullptr, kPeerPath, kPeerInterface, kMethods, nullptr),
          "sd_bus_add_object_vtable");
  require(sd_bus_request_name(bus, name.c_str(), 0), "sd_bus_request_name");
  ready();
  for (;;) {
    const int done = sd_bus_process(bus, nullptr);
    require(done, "sd_bus_process");
    if (done == 0) require(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
  }
}

std::unique_ptr<PeerClient> connectPeer(const std::string& name) {
  return std::make_unique<SdBusClient>(name);
}

}  // namespace zq::bench
