#include "pen_channel.h"

#include "perix/qt_pen_event.h"

namespace zq::console {

PenChannel::~PenChannel() {
  if (proxy_ != nullptr) proxy_->PortInit(kPenPortName, false, nullptr);
}

void PenChannel::open(PerixProxy* proxy) {
  proxy_ = proxy;
  proxy_->PortInit(kPenPortName, true,
                   [this](const std::string&, unsigned int size, unsigned char* bytes) {
                     if (const auto packet = readPenPacket(bytes, size)) emit sent(*packet);
                     return size;
                   });
  auto announcement = penAnnouncement(kPenId);
  proxy_->PortData(kPenPortName, announcement.data(), announcement.size());
}

void PenChannel::send(QTabletEvent* event) {
  if (proxy_ != nullptr) proxy_->SendPenEvent(PenEventOf(*event));
}

}  // namespace zq::console
