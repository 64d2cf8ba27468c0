// The peer by sdbus-c++.
#include <sdbus-c++/sdbus-c++.h>

#include "bench/peers/peer.h"

namespace zq::bench {
namespace {

class SdbusCppClient : public PeerClient {
 public:
  // On a connection without a thread of its own, which makes the call cheaper.
  explicit SdbusCppClient(const std::string& name)
      : bus_(sdbus::createSessionBusConnection()),
        service_(sdbus::createProxy(*bus_, name, kPeerPath)) {}

  int32_t connectDevice(int32_t desktop, uint16_t device) override {
    int32_t status = -1;
    service_->callMethod("connectDevice")
        .onInterface(kPeerInterface)
        .withArguments(desktop, device)
        .storeResultsTo(status);
    return status;
  }

 private:
  const std::unique_ptr<sdbus::IConnection> bus_;
  const std::unique_ptr<sdbus::IProxy> service_;
};

}  // namespace

void servePeer(const std::string& name, const std::function<void()>& ready) {
  const auto bus = sdbus::createSessionBusConnection(name);
  const auto object = sdbus::createObject(*bus, kPeerPath);
  object->registerMethod("connectDevice")
      .onInterface(kPeerInterface)
      .implementedAs([](int32_t, uint16_t) { return int32_t{0}; });
  object->finishRegistration();
  ready();
  bus->enterEventLoop();
}

std::unique_ptr<PeerClient> connectPeer(const std::string& name) {
  return std::make_unique<SdbusCppClient>(name);
}

}  // namespace zq::bench
