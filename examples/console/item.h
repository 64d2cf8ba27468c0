// What the window shows, as values that travel between threads.
#pragma once

#include <QDateTime>
#include <QMetaType>
#include <QString>
#include <QVector>

namespace zq::console {

enum class ItemKind { Desktop, Device, Printer };

/// How an item's state is to be seen at a glance.
enum class Light { Off, On, Attention };

/// A desktop, a device or a printer.
struct Item {
  QString key;  ///< of a desktop its name, else the service's number
  QString name;
  QString detail;
  QString state;
  Light light = Light::Off;
  bool connected = false;  ///< of a desktop: its session is open
  QString desktop;         ///< where it is connected
};

enum class Severity { Note, Success, Warning, Failure };

/// Something that happened, for the log.
struct News {
  Severity severity = Severity::Note;
  QString text;
  QTime time = QTime::currentTime();
};

/// What is known of the service.
enum class ServiceState { Searching, Connected, Died, Returned };

}  // namespace zq::console

Q_DECLARE_METATYPE(zq::console::ItemKind)
Q_DECLARE_METATYPE(zq::console::Item)
Q_DECLARE_METATYPE(zq::console::News)
Q_DECLARE_METATYPE(zq::console::ServiceState)
