// The tablet events of Qt. The one place of the library that uses Qt.
#pragma once

#include <optional>

#include "perix/pen_event.h"

namespace zq {

/// Reads a QTabletEvent of the Qt that the library was built with; it stays the caller's. Nothing
/// when it is null.
std::optional<PenEvent> readTabletEvent(const void* tabletEvent);

}  // namespace zq
