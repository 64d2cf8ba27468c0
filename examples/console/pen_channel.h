// The pen's port, as the window plays it: with no desktop at its other end.
#pragma once

#include <QObject>
#include <QTabletEvent>

#include "perix/pen_packet.h"
#include "perix/perix_proxy.h"

namespace zq::console {

/// Opens the port, announces a pen as the desktop's end would do, and shows what is sent. Belongs
/// to the user interface's thread, as the port operations of the library demand; none of them
/// waits.
class PenChannel : public QObject {
  Q_OBJECT

 public:
  using QObject::QObject;
  ~PenChannel() override;

  /// The id of the announced pen.
  static constexpr uint8_t kPenId = 1;

 public slots:
  void open(zq::PerixProxy* proxy);
  /// Nothing happens before open().
  void send(QTabletEvent* event);

 signals:
  void sent(const zq::PenPacket& packet);

 private:
  /// Kept, because asking for it anew would connect when the service is away, and wait for that.
  PerixProxy* proxy_ = nullptr;
};

}  // namespace zq::console
