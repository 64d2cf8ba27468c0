#include "tools/perixctl/pen_stroke_player.h"

#include <chrono>
#include <cmath>
#include <thread>

namespace zq::ctl {
namespace {

constexpr uint8_t kPenId = 1;

int32_t typeOf(PenMotion motion) {
  switch (motion) {
    case PenMotion::Press:
      return kPenPress;
    case PenMotion::Release:
      return kPenRelease;
    case PenMotion::Move:
      break;
  }
  return kPenMove;
}

/// As a toolkit rounds positions: halves go up.
int32_t pixels(double position) {
  return static_cast<int32_t>(std::floor(position + 0.5));
}

PenEvent penEvent(const StrokeEvent& event) {
  return {.type = typeOf(event.motion),
          .x = pixels(event.x),
          .y = pixels(event.y),
          .pressure = event.pressure,
          .rotation = event.rotation,
          .xTilt = static_cast<int32_t>(event.xTilt),
          .yTilt = static_cast<int32_t>(event.yTilt)};
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
    proxy.SendPenEvent(penEvent(event));
  }
}

}  // namespace zq::ctl
