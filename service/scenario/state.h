// The model as JSON.
#pragma once

#include <vector>

#include "service/model/world.h"
#include "service/scenario/json.h"

namespace zq::devservice {

/// Everything but the drive token, of which the length stands there.
Json stateAsJson(const World& world);
Json printersAsJson(const World& world);
Json driversAsJson(const std::vector<Driver>& drivers);

}  // namespace zq::devservice
