// The window's questions to the peripheral service, and the answers and events.
#pragma once

#include <QMap>
#include <QObject>
#include <QSet>
#include <cstdint>

#include "item.h"
#include "perix/perix_proxy.h"

namespace zq::console {

/// Lives on a thread of its own, for its slots wait for the service, and tells their results by
/// signals. So it is used through connections alone, which queue calls between threads; destroy it
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
  /// Does it, and tells the result.
  void request(const zq::console::Request& request);

 signals:
  /// The library's object. Lives for as long as the process; comes once, before all else.
  void proxyReady(zq::PerixProxy* proxy);
  void stateChanged(zq::console::ServiceState state);
  void listed(zq::console::ItemKind kind, const QVector<zq::console::Item>& items);
  void changed(zq::console::ItemKind kind, const zq::console::Item& item);
  void removed(zq::console::ItemKind kind, const QString& key);
  void told(const zq::console::News& news);
  /// An operation begins, or with an empty title the operation has ended.
  void working(const QString& title);
  /// refresh() or request() has ended. Comes before the changes that it made.
  void handled();

  // From the library's thread to the session's own; for nobody else.
  void deviceHeard(uint16_t code, const zq::CommonDevice& device);
  void printerHeard(const zq::PrinterDevice& printer);
  void deathHeard();

 private:
  class Work;

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
  bool run(const Request& request);
  bool readItems();
  void listDesktops();
  bool listDevices();
  bool listPrinters();
  QString desktopOf(uint32_t id);
  bool answered(const QString& operation);
  void tell(Severity severity, const QString& text, const QString& operation = {});

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
