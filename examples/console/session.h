// All that the window asks of the peripheral service and hears from it.
#pragma once

#include <QMap>
#include <QObject>
#include <QSet>
#include <cstdint>

#include "item.h"
#include "perix/perix_proxy.h"

namespace zq::console {

/// Lives on a thread of its own, for its slots wait for the service, and tells by signals what came
/// of them. So it is used through connections alone, which queue what crosses threads; destroy it
/// on its thread. One per process: there is one registry of callbacks.
///
/// Death. The session looks once a second whether the library is still connected, which asks nobody
/// while it is. Once the library is not, it waits for the service by itself and tells when the
/// service is back (SERVICE_DIED); then the session registers anew, opens the sessions of desktops
/// again and reads all lists.
class Session : public QObject {
  Q_OBJECT

 public:
  Session();
  ~Session() override;

 public slots:
  void start();
  /// Reads all lists again.
  void refresh();
  /// Connects a device or printer into a desktop or takes it out, or opens or ends the session of a
  /// desktop, which is `key` then.
  void switchItem(zq::console::ItemKind kind, const QString& key, const QString& desktop, bool on);

 signals:
  /// The library's object. Lives for as long as the process; comes once, before all else.
  void proxyReady(zq::PerixProxy* proxy);
  void stateChanged(zq::console::ServiceState state);
  void listed(zq::console::ItemKind kind, const QVector<zq::console::Item>& items);
  void changed(zq::console::ItemKind kind, const zq::console::Item& item);
  void removed(zq::console::ItemKind kind, const QString& key);
  void told(const zq::console::News& news);

  // From the library's thread to the session's own; for nobody else.
  void deviceHeard(uint16_t code, const zq::CommonDevice& device);
  void printerHeard(const zq::PrinterDevice& printer);
  void deathHeard();

 private:
  static int onDeviceEvent(uint16_t code, CommonDevice* device, void* self);
  static int onPrinterEvent(uint16_t code, PrinterDevice* printer, void* self);
  static int onConfigResult(uint16_t code, _ConfigNewDeviceResult* result, void* self);
  static int onDesktopEvent(uint16_t code, void* data, void* self);
  static int onServiceEvent(uint16_t code, void* data, void* self);

  bool isConnected() const;
  void setState(ServiceState state);
  void check();
  void takeUp();
  void hearOfDeath();
  void hearDevice(uint16_t code, const CommonDevice& device);
  void hearPrinter(const PrinterDevice& printer);
  void watchDesktop(const QString& name);
  bool readDesktops();
  bool openSession(const QString& desktop);
  void switchSession(const QString& desktop, bool open);
  void listDesktops();
  void listDevices();
  void listPrinters();
  QString desktopOf(uint32_t id);
  bool answered(const QString& what);
  bool succeeded(const QString& what, int result);
  void tell(Severity severity, const QString& text);

  ServiceState state_ = ServiceState::Searching;
  bool toldOfDeath_ = false;  ///< whether the library has told of the death that state_ speaks of
  QMap<uint32_t, QString> desktops_;
  QSet<QString> watched_;   ///< desktops with a callback
  QSet<QString> sessions_;  ///< desktops with an open session
};

}  // namespace zq::console

Q_DECLARE_METATYPE(zq::PerixProxy*)
Q_DECLARE_METATYPE(zq::CommonDevice)
Q_DECLARE_METATYPE(zq::PrinterDevice)
