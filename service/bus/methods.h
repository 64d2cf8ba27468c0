// The methods of the bus service "perix", by family. The rows refer to `world`, which must outlive
// them; they run under the model's lock.
#pragma once

#include <string_view>
#include <vector>

#include "service/bus/method_table.h"
#include "service/model/world.h"

namespace zq::devservice {

/// The form of the method of that name; a name without a row in perix/service_methods.h does not
/// compile.
consteval ServiceMethod perixMethod(std::string_view name) {
  for (const ServiceMethod& method : kServiceMethods) {
    if (method.name == name) return method;
  }
  throw "perix/service_methods.h has no such method";
}

/// Sessions, ids, focus, pipes and ports, tokens, quality reports.
std::vector<Method> desktopMethods(World& world);
/// Lists, connection, network devices, the configuration of new devices, disks.
std::vector<Method> deviceMethods(World& world);
/// Policies, properties, turbo texts, the camera, joysticks.
std::vector<Method> settingMethods(World& world);
/// Lists, connection, network, shared and local printers.
std::vector<Method> printerMethods(World& world);
/// Reset, diagnosis, tests, commands.
std::vector<Method> serviceMethods(World& world);

/// All of them.
std::vector<Method> perixMethods(World& world);

}  // namespace zq::devservice
