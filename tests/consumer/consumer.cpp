// A client outside the tree: lists the devices, and reads an event in a class of its own.
#include <perix/events.h>
#include <perix/perix_proxy.h>
#include <perix/version.h>
#include <zqbus/message.h>

#include <cstdio>

namespace {

class Client : public zq::PerixProxy {
 public:
  void HandleEvent(std::shared_ptr<zq::ZQBusMessage> event) override {
    lastKind = event->readInt32(1);
    PerixProxy::HandleEvent(event);
  }
  int lastKind = 0;
};

/// An event as the service sends it, read by the override and by the library.
bool hearsEvents(Client& client) {
  constexpr int kKind = static_cast<int>(zq::EventKind::DeviceArrived);
  const zq::CommonDevice device{};
  int heard = 0;
  const auto count = [](uint16_t, zq::CommonDevice*, void* userdata) {
    ++*static_cast<int*>(userdata);
    return 0;
  };
  client.RegisterDeviceCallback(count, &heard);
  const auto event = std::make_shared<zq::ZQBusMessage>(zq::ZQBusMessageType::Event, "perixevent");
  event->appendInt32(0);
  event->appendInt32(kKind);
  event->appendBytes(&device, sizeof device);
  client.HandleEvent(event);
  client.UnregisterDeviceCallback(&heard);
  return client.lastKind == kKind && heard == 1;
}

}  // namespace

int main() {
  Client client;
  if (zq::PerixLibraryVersion() < PERIX_VERSION_NUMBER || !hearsEvents(client)) return 2;
  if (client.Init() != 0) return 3;
  const std::list<zq::CommonDevice*> devices = client.GetLocalDeviceList();
  for (const zq::CommonDevice* device : devices) {
    std::printf("%d %s\n", device->devNumber, device->name);
  }
  client.FreeDeviceList(devices);
  client.AwaitDeliveries();
  return zq::PerixLastFailure().failure == zq::PerixFailure::None ? 0 : 4;
}
