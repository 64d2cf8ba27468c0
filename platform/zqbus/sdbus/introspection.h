// The description of a service for D-Bus tools.
#pragma once

#include <string>

#include "zqbus/zqbus_service.h"

namespace zq {

/// The introspection document of an object with these methods and events on `interface`.
std::string introspectionXml(const std::string& interface,
                             const ZQBusServiceDescription& description);

inline constexpr char kIntrospectableInterface[] = "org.freedesktop.DBus.Introspectable";
inline constexpr char kIntrospect[] = "Introspect";

}  // namespace zq
