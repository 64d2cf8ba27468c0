// A client of the same bus that pretends to be the service.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "tests/support/bus_world.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

/// Another client, with sd-bus alone.
class Stranger {
 public:
  Stranger() {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, testBus().address().c_str());
    sd_bus_set_bus_client(bus_, 1);
    sd_bus_start(bus_);
  }
  ~Stranger() { sd_bus_flush_close_unref(bus_); }

  /// Sends a signal to everybody, or to one connection alone, and waits until the bus has routed it.
  void sendSignal(const char* path, const char* interface, const char* member, const char* to) {
    sd_bus_message* signal = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(bus_, &signal, path, interface, member), 0);
    if (to != nullptr) {
      ASSERT_GE(sd_bus_message_set_destination(signal, to), 0);
    }
    ASSERT_GE(sd_bus_message_append(signal, "ii", 0, 666), 0);
    ASSERT_GE(sd_bus_send(bus_, signal, nullptr), 0);
    sd_bus_message_unref(signal);
    ASSERT_GE(sd_bus_call_method(bus_, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer",
                                 "Ping", nullptr, nullptr, nullptr),
              0);
  }

 private:
  sd_bus* bus_ = nullptr;
};

TEST(AForgedSignal, ReachesNoCallback) {
  RecordingService owner;
  std::string client;
  owner.answerWith([&](const std::shared_ptr<ZQBusCall>& call) {
    client = call->sender();
    call->reply(message(int32_t{0}));
  });
  const auto service = ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::TrustedPeer, 1);
  Watched<std::vector<int>> heard;
  const auto note = [&](const std::shared_ptr<ZQBusMessage>& event) {
    heard.change([&](auto& all) { all.push_back(event->readInt32(1)); });
  };
  service->addEventListener("perixevent", new ZQBusEventCallback(note),
                            ZQBusSecurityFlags::TrustedPeer);
  Watched<int> deaths;
  service->setDeathCallback([&] { deaths.change([](int& n) { ++n; }); });
  service->callWithReplyBlocking(service->makeMethodCallMessage("whoami"), 5000);

  Stranger stranger;
  constexpr char kPath[] = "/org/zqbus/perix";
  stranger.sendSignal(kPath, "org.zqbus.perix", "perixevent", nullptr);
  stranger.sendSignal(kPath, "org.zqbus.perix", "perixevent", client.c_str());
  stranger.sendSignal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                      client.c_str());
  // The bus keeps the order in which it routes: what comes now comes after the forgeries.
  owner.sendEvent(0, 1);
  ASSERT_TRUE(heard.wait([](const auto& all) { return !all.empty(); }));
  EXPECT_EQ(heard.get(), std::vector<int>{1});
  EXPECT_EQ(deaths.get(), 0);
}

}  // namespace
}  // namespace zq
