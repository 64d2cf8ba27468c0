// The peer by GDBus.
#include <gio/gio.h>

#include <stdexcept>

#include "bench/peers/peer.h"

namespace zq::bench {
namespace {

constexpr char kDescription[] =
    "<node><interface name='org.zqbus.peer'><method name='connectDevice'>"
    "<arg type='i' direction='in'/><arg type='q' direction='in'/><arg type='i' direction='out'/>"
    "</method></interface></node>";

void throwIfSet(GError* error) {
  if (error == nullptr) return;
  const std::string text = error->message;
  g_error_free(error);
  throw std::runtime_error(text);
}

GDBusConnection* openSessionBus() {
  GError* error = nullptr;
  GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  throwIfSet(error);
  return bus;
}

void onCall(GDBusConnection*, const char*, const char*, const char*, const char*,
            GVariant* arguments, GDBusMethodInvocation* call, void*) {
  int32_t desktop = 0;
  uint16_t device = 0;
  g_variant_get(arguments, "(iq)", &desktop, &device);
  g_dbus_method_invocation_return_value(call, g_variant_new("(i)", 0));
}

void onNameAcquired(GDBusConnection*, const char*, void* ready) {
  (*static_cast<const std::function<void()>*>(ready))();
}

class GDBusClient : public PeerClient {
 public:
  explicit GDBusClient(std::string name) : bus_(openSessionBus()), name_(std::move(name)) {}
  GDBusClient(const GDBusClient&) = delete;
  GDBusClient& operator=(const GDBusClient&) = delete;
  ~GDBusClient() override { g_object_unref(bus_); }

  int32_t connectDevice(int32_t desktop, uint16_t device) override {
    GError* error = nullptr;
    GVariant* const reply =
        g_dbus_connection_call_sync(bus_, name_.c_str(), kPeerPath, kPeerInterface, "connectDevice",
                                    g_variant_new("(iq)", desktop, device), G_VARIANT_TYPE("(i)"),
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    throwIfSet(error);
    int32_t status = -1;
    g_variant_get(reply, "(i)", &status);
    g_variant_unref(reply);
    return status;
  }

 private:
  GDBusConnection* const bus_;
  const std::string name_;
};

}  // namespace

void servePeer(const std::string& name, const std::function<void()>& ready) {
  GDBusConnection* const bus = openSessionBus();
  GError* error = nullptr;
  GDBusNodeInfo* const description = g_dbus_node_info_new_for_xml(kDescription, &error);
  throwIfSet(error);
  const GDBusInterfaceVTable methods{&onCall, nullptr, nullptr, {}};
  g_dbus_connection_register_object(bus, kPeerPath, description->interfaces[0], &methods, nullptr,
                                    nullptr, &error);
  throwIfSet(error);
  g_bus_own_name_on_connection(bus, name.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE, &onNameAcquired,
                               nullptr, const_cast<std::function<void()>*>(&ready), nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

std::unique_ptr<PeerClient> connectPeer(const std::string& name) {
  return std::make_unique<GDBusClient>(name);
}

}  // namespace zq::bench
