#include "tools/perixctl/pen_stroke_player.h"

#include <QTabletEvent>
#include <chrono>
#include <thread>

namespace zq::ctl {
namespace {

constexpr uint8_t kPenId = 1;

QEvent::Type typeOf(PenMotion motion) {
  switch (motion) {
    case PenMotion::Press:
      return QEvent::TabletPress;
    case PenMotion::Release:
      return QEvent::TabletRelease;
    case PenMotion::Move:
      break;
  }
  return QEvent::TabletMove;
}

QTabletEvent tabletEvent(const StrokeEvent& event) {
  const QPointF position(event.x, event.y);
  const bool down = event.motion != PenMotion::Release;
  return {typeOf(event.motion),
          position,
          position,
          QTabletEvent::Stylus,
          QTabletEvent::Pen,
          event.pressure,
          static_cast<int>(event.xTilt),
          static_cast<int>(event.yTilt),
          0.0,
          event.rotation,
          0,
          Qt::NoModifier,
          kPenId,
          Qt::LeftButton,
          down ? Qt::LeftButton : Qt::NoButton};
}

// The pen's port, open for as long as this lives.
class OpenPort {
 public:
  using Receiver = std::function<void(const unsigned char* packet)>;

  OpenPort(PerixProxy& proxy, const Receiver& receiver) : proxy_(proxy) {
    proxy.PortInit(kPenPortName, true,
                   [receiver](const std::string&, unsigned int size, unsigned char* packet) {
                     receiver(packet);
                     return size;
                   });
    auto announcement = penAnnouncement(kPenId);
    proxy.PortData(kPenPortName, announcement.data(), announcement.size());
  }
  ~OpenPort() { proxy_.PortInit(kPenPortName, false, nullptr); }
  OpenPort(const OpenPort&) = delete;
  OpenPort& operator=(const OpenPort&) = delete;

 private:
  PerixProxy& proxy_;
};

}  // namespace

void playStroke(PerixProxy& proxy, const std::vector<StrokeEvent>& stroke, bool delayed,
                const PenPacketSink& sink) {
  const StrokeEvent* current = nullptr;
  const OpenPort port(proxy, [&](const unsigned char* packet) { sink(*current, packet); });
  auto due = std::chrono::steady_clock::now();
  for (const StrokeEvent& event : stroke) {
    due += std::chrono::milliseconds(static_cast<int>(event.delayMs));
    if (delayed) std::this_thread::sleep_until(due);
    current = &event;
    QTabletEvent tablet = tabletEvent(event);
    proxy.SendPenData("", &tablet, 0, -1, -1);  // -1: where the event itself is
  }
}

}  // namespace zq::ctl
