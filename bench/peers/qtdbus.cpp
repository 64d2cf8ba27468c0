// The peer by QtDBus.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <stdexcept>

#include "bench/peers/peer.h"

namespace zq::bench {
namespace {

/// What Qt needs before anything else of it works.
struct Application {
  char name[5] = "peer";
  char* arguments[2] = {name, nullptr};
  int count = 1;
  QCoreApplication application{count, arguments};
};

class Object : public QDBusVirtualObject {
 public:
  bool handleMessage(const QDBusMessage& call, const QDBusConnection& bus) override {
    if (call.member() != "connectDevice" || call.arguments().size() != 2) return false;
    return bus.send(call.createReply(0));
  }
  QString introspect(const QString&) const override { return {}; }
};

class QtDBusClient : public PeerClient {
 public:
  explicit QtDBusClient(const std::string& name)
      : bus_(QDBusConnection::sessionBus()), name_(QString::fromStdString(name)) {}

  int32_t connectDevice(int32_t desktop, uint16_t device) override {
    QDBusMessage call =
        QDBusMessage::createMethodCall(name_, kPeerPath, kPeerInterface, "connectDevice");
    call << desktop << QVariant::fromValue(device);
    const QDBusMessage reply = bus_.call(call);
    if (reply.type() != QDBusMessage::ReplyMessage) {
      throw std::runtime_error(reply.errorMessage().toStdString());
    }
    return reply.arguments().at(0).toInt();
  }

 private:
  Application application_;
  QDBusConnection bus_;
  const QString name_;
};

}  // namespace

void servePeer(const std::string& name, const std::function<void()>& ready) {
  Application application;
  QDBusConnection bus = QDBusConnection::sessionBus();
  Object object;
  if (!bus.registerVirtualObject(kPeerPath, &object) ||
      !bus.registerService(QString::fromStdString(name))) {
    throw std::runtime_error(bus.lastError().message().toStdString());
  }
  ready();
  QCoreApplication::exec();
}

std::unique_ptr<PeerClient> connectPeer(const std::string& name) {
  return std::make_unique<QtDBusClient>(name);
}

}  // namespace zq::bench
