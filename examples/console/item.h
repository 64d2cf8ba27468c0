// The values that the window shows and asks for. They travel between threads.
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
  bool waiting = false;    ///< a device that is to be configured or ignored
  quint64 sourceId = 0;    ///< of a device
  QString desktop;         ///< where it is connected
};

/// What a user can do with an item. Connecting a desktop opens its session.
enum class Verb { Connect, Disconnect, Configure, Ignore };

/// One operation that the user wants.
struct Request {
  Verb verb = Verb::Connect;
  ItemKind kind = ItemKind::Desktop;
  Item item;
  QString desktop;      ///< into which, out of which or for which; empty when it is for none
  bool always = false;  ///< a decision about a new device holds for all devices of its type
};

/// A text to be shown among others: a text that is written from right to left keeps its own order
/// and leaves the order of the words around it alone.
inline QString isolated(const QString& text) {
  constexpr ushort kIsolate = 0x2068;
  constexpr ushort kEnd = 0x2069;
  return text.isRightToLeft() ? QChar(kIsolate) + text + QChar(kEnd) : text;
}

enum class Severity { Note, Success, Warning, Failure };

/// Something that happened, for the log.
struct News {
  Severity severity = Severity::Note;
  QString text;
  QString operation;  ///< of which the text tells the result; empty when it tells of none
  QTime time = QTime::currentTime();
};

/// The state of the service.
enum class ServiceState { Searching, Connected, Died, Returned };

}  // namespace zq::console

Q_DECLARE_METATYPE(zq::console::ItemKind)
Q_DECLARE_METATYPE(zq::console::Item)
Q_DECLARE_METATYPE(zq::console::Request)
Q_DECLARE_METATYPE(zq::console::News)
Q_DECLARE_METATYPE(zq::console::ServiceState)
