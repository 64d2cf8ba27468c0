// The peer by libdbus.
#include <dbus/dbus.h>

#include <stdexcept>

#include "bench/peers/peer.h"

namespace zq::bench {
namespace {

class DBusErrorText {
 public:
  DBusErrorText() { dbus_error_init(&error_); }
  DBusErrorText(const DBusErrorText&) = delete;
  DBusErrorText& operator=(const DBusErrorText&) = delete;
  ~DBusErrorText() { dbus_error_free(&error_); }

  DBusError* out() { return &error_; }
  void throwIfSet() const {
    if (dbus_error_is_set(&error_)) throw std::runtime_error(error_.message);
  }

 private:
  DBusError error_;
};

DBusConnection* openSessionBus() {
  DBusErrorText error;
  DBusConnection* const bus = dbus_bus_get(DBUS_BUS_SESSION, error.out());
  error.throwIfSet();
  return bus;
}

DBusHandlerResult onCall(DBusConnection* bus, DBusMessage* call, void*) {
  if (!dbus_message_is_method_call(call, kPeerInterface, "connectDevice")) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  int32_t desktop = 0;
  uint16_t device = 0;
  if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_INT32, &desktop, DBUS_TYPE_UINT16, &device,
                             DBUS_TYPE_INVALID)) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const int32_t status = 0;
  DBusMessage* const reply = dbus_message_new_method_return(call);
  dbus_message_append_args(reply, DBUS_TYPE_INT32, &status, DBUS_TYPE_INVALID);
  dbus_connection_send(bus, reply, nullptr);
  dbus_message_unref(reply);
  return DBUS_HANDLER_RESULT_HANDLED;
}

class LibdbusClient : public PeerClient {
 public:
  explicit LibdbusClient(std::string name) : bus_(openSessionBus()), name_(std::move(name)) {}
  LibdbusClient(const LibdbusClient&) = delete;
  LibdbusClient& operator=(const LibdbusClient&) = delete;
  ~LibdbusClient() override { dbus_connection_unref(bus_); }

  int32_t connectDevice(int32_t desktop, uint16_t device) override {
    DBusErrorText error;
    DBusMessage* const call =
        dbus_message_new_method_call(name_.c_str(), kPeerPath, kPeerInterface, "connectDevice");
    dbus_message_append_args(call, DBUS_TYPE_INT32, &desktop, DBUS_TYPE_UINT16, &device,
                             DBUS_TYPE_INVALID);
    DBusMessage* const reply =
        dbus_connection_send_with_reply_and_block(bus_, call, -1, error.out());
    dbus_message_unref(call);
    error.throwIfSet();
    int32_t status = -1;
    dbus_message_get_args(reply, error.out(), DBUS_TYPE_INT32, &status, DBUS_TYPE_INVALID);
    dbus_message_unref(reply);
    error.throwIfSet();
    return status;
  }

 private:
  DBusConnection* const bus_;
  const std::string name_;
};

}  // namespace

void servePeer(const std::string& name, const std::function<void()>& ready) {
  DBusConnection* const bus = openSessionBus();
  const DBusObjectPathVTable object{nullptr, &onCall};
  dbus_connection_register_object_path(bus, kPeerPath, &object, nullptr);
  DBusErrorText error;
  dbus_bus_request_name(bus, name.c_str(), 0, error.out());
  error.throwIfSet();
  ready();
  while (dbus_connection_read_write_dispatch(bus, -1)) {
  }
}

std::unique_ptr<PeerClient> connectPeer(const std::string& name) {
  return std::make_unique<LibdbusClient>(name);
}

}  // namespace zq::bench
