#include "tablet_event.h"

#include "perix/qt_pen_event.h"

// Qt 6 keeps the values of an event in its Gui library. A client that passes an event has loaded
// that library; other clients load the proxy without it.
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
asm(".weak _ZNK11QEventPoint8positionEv\n"
    ".weak _ZNK11QEventPoint8pressureEv\n"
    ".weak _ZNK11QEventPoint8rotationEv\n");
#endif

namespace zq {

std::optional<PenEvent> readTabletEvent(const void* tabletEvent) {
  if (tabletEvent == nullptr) return std::nullopt;
  return PenEventOf(*static_cast<const QTabletEvent*>(tabletEvent));
}

}  // namespace zq
